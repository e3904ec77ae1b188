#include "tools/qnvtool/display_order.h"

#include <algorithm>

namespace qnvtool {

namespace {
// guard: a stream that breaks its own reorder limit cannot make the units
// waiting for the first one's rank grow without bound.
constexpr size_t kMostWaiting = 64;
}  // namespace

void DisplayOrder::bump() {
    auto smallest = std::min_element(buffer_.begin(), buffer_.end(), [](const Picture& a, const Picture& b) {
        return a.poc != b.poc ? a.poc < b.poc : a.index < b.index;
    });
    decoded_[smallest->index - popped_] = nextRank_++;
    buffer_.erase(smallest);
}

void DisplayOrder::push(int32_t poc, bool startsSequence, bool ranked) {
    if (startsSequence) finish();
    decoded_.push_back(ranked ? kPending : kNoRank);
    if (ranked) buffer_.push_back({poc, pushed_});
    ++pushed_;
    while (buffer_.size() > limit_) bump();
    while (decoded_.size() > kMostWaiting + limit_ && decoded_.front() == kPending) bump();
}

bool DisplayOrder::pop(int64_t& rank) {
    if (decoded_.empty() || decoded_.front() == kPending) return false;
    rank = decoded_.front();
    decoded_.pop_front();
    ++popped_;
    return true;
}

void DisplayOrder::finish() {
    while (!buffer_.empty()) bump();
}

}  // namespace qnvtool
