#include "tools/qnvtool/picture_order.h"

#include <algorithm>

#include "qnvutil/order/access_unit.h"
#include "tools/qnvtool/unit_reader.h"

namespace qnvtool {

namespace {

uint32_t reorderLimit(const H264SpsRecord& s) {
    if (s.vui_parameters_present_flag == 1 && s.bitstream_restriction_flag == 1 && s.max_num_reorder_frames >= 0)
        return static_cast<uint32_t>(std::min(s.max_num_reorder_frames, 16));
    return 16;  // the largest DPB
}

// The record keeps the highest sub-layer's value in entry 0.
uint32_t reorderLimit(const HevcSpsRecord& s) { return std::min(s.sps_max_num_reorder_pics[0], 16u); }

}  // namespace

void PictureRanker::add(const uint8_t* unit, uint32_t size, const qnv::order::AccessUnitSplitter* sets) {
    uint32_t flags = QNV_PICORDER_FAILED, limit = 16;
    int32_t poc = 0;
    if (codec_ == VideoCodec::kMpeg2 || sets == nullptr) {
        poc = ++fallbackPoc_;
        flags = 0;
        limit = 0;
    } else if (codec_ == VideoCodec::kHevc) {
        if (sets->hevcSps() && sets->hevcPps()) {
            flags = qnvutilPicOrderCountHevc(&state_, unit, size, 0, sets->hevcSps(), sets->hevcPps(), &poc);
            limit = reorderLimit(*sets->hevcSps());
        }
    } else if (sets->h264Sps() && sets->h264Pps()) {
        flags = qnvutilPicOrderCount(&state_, unit, size, 0, sets->h264Sps(), sets->h264Pps(), &poc);
        limit = reorderLimit(*sets->h264Sps());
    }
    // An H.264 field is a lone first field now, or the second field of a
    // pair whose first field had the other parity.
    structure_ = PictureStructure::kFrame;
    if (codec_ == VideoCodec::kH264 && flags != QNV_PICORDER_FAILED) {
        if (flags & QNV_PICORDER_SECOND_FIELD)
            structure_ = state_.firstFieldBottom ? PictureStructure::kTopField : PictureStructure::kBottomField;
        else if (state_.firstFieldPending)
            structure_ = state_.firstFieldBottom ? PictureStructure::kBottomField : PictureStructure::kTopField;
    }
    if (!order_) order_ = std::make_unique<DisplayOrder>(limit);
    if (flags == QNV_PICORDER_FAILED) {
        flags = 0;
        poc = ++fallbackPoc_ + (1 << 30);
    }
    const bool ranked = (flags & (QNV_PICORDER_SECOND_FIELD | QNV_PICORDER_NOT_OUTPUT)) == 0;
    order_->push(poc, (flags & QNV_PICORDER_NEW_SEQUENCE) != 0, ranked);
}

RankedUnits::RankedUnits(AccessUnitReader& reader, VideoCodec codec, uint32_t lookahead)
    : reader_(reader), ranker_(codec), lookahead_(lookahead) {}

bool RankedUnits::readOne() {
    if (ended_) return false;
    Slot slot;
    if (!spare_.empty()) {
        slot = std::move(spare_.back());
        spare_.pop_back();
    }
    if (!reader_.next(slot.bytes, slot.offset)) {
        ended_ = true;
        ranker_.finish();
        spare_.push_back(std::move(slot));
    } else {
        ranker_.add(slot.bytes.data(), static_cast<uint32_t>(slot.bytes.size()), reader_.splitter());
        slot.structure = ranker_.structure();
        slot.known = false;
        slots_.push_back(std::move(slot));
    }
    for (int64_t r; ranker_.pop(r); ++assigned_) {
        slots_[assigned_].rank = r;
        slots_[assigned_].known = true;
    }
    return !ended_;
}

bool RankedUnits::next(const std::vector<uint8_t>*& bytes, int64_t& rank, uint64_t& offset) {
    if (!out_.bytes.empty() || out_.bytes.capacity() != 0) spare_.push_back(std::move(out_));
    for (;;) {
        if (!slots_.empty() && slots_.front().known) {
            const Slot& front = slots_.front();
            if (front.rank < 0 || ended_ || ranker_.ranked() > front.rank + int64_t(lookahead_)) break;
        }
        if (!readOne() && (slots_.empty() || !slots_.front().known)) return false;
    }
    out_ = std::move(slots_.front());
    slots_.pop_front();
    --assigned_;
    ++handed_;
    bytes = &out_.bytes;
    rank = out_.rank;
    offset = out_.offset;
    return true;
}

}  // namespace qnvtool
