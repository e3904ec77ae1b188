// Display ranks for access units taken in decoding order: the bumping a
// decoder does with its picture buffer, bounded by the stream's reorder
// limit. Packets that describe a picture (captions, time codes) go to the
// picture displayed at their rank; the units themselves still go out in
// decoding order, each once its rank is known.
#ifndef QNVTOOL_DISPLAY_ORDER_H
#define QNVTOOL_DISPLAY_ORDER_H

#include <cstddef>
#include <cstdint>
#include <deque>
#include <vector>

namespace qnvtool {

class DisplayOrder {
public:
    static constexpr int64_t kNoRank = -1;  // never displayed on its own (second field, RASL skipped)

    // reorderLimit: the most pictures that may precede a picture in decoding
    // order and follow it in display order (max_num_reorder_frames,
    // sps_max_num_reorder_pics).
    explicit DisplayOrder(uint32_t reorderLimit) : limit_(reorderLimit) {}

    // The next unit in decoding order. startsSequence: its picture starts a
    // coded video sequence, so every picture before it is displayed first.
    // ranked: false for units that take no display place of their own.
    void push(int32_t poc, bool startsSequence, bool ranked);
    // The earliest unit not yet handed out, once its rank is known: its
    // rank, or kNoRank. False while it waits (or when none is left).
    bool pop(int64_t& rank);
    // End of the stream: every waiting picture is displayed, in POC order.
    void finish();
    // Display places handed out so far.
    int64_t ranked() const { return nextRank_; }
    // Units pushed and not yet popped.
    size_t waiting() const { return decoded_.size(); }

private:
    static constexpr int64_t kPending = -2;
    struct Picture {
        int32_t poc;
        uint64_t index;  // decoding index
    };
    void bump();  // displays the waiting picture of the smallest POC

    uint32_t limit_;
    uint64_t pushed_ = 0;    // decoding index of the next unit
    uint64_t popped_ = 0;    // decoding index of decoded_.front()
    int64_t nextRank_ = 0;
    std::vector<Picture> buffer_;  // pictures waiting for display
    std::deque<int64_t> decoded_;  // ranks of units not yet popped, in decoding order
};

}  // namespace qnvtool

#endif
