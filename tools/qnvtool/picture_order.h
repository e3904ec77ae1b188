// Display ranks of access units taken one at a time in decoding order, for
// the subcommands that hand out one packet per picture (captions, time
// codes): the i-th packet belongs to the picture displayed i-th, not to the
// i-th access unit.
//
// Within a coded video sequence pictures are ranked by their picture order
// count, as a decoder bumps them out within the SPS's reorder limit
// (max_num_reorder_frames, sps_max_num_reorder_pics; else the largest DPB),
// so a unit waits at most that many pictures for its rank. A sequence
// follows the one before it: at an IDR (and an HEVC IRAP with
// NoRaslOutputFlag: a BLA, or a CRA that begins the stream or follows an
// end of sequence) every waiting picture is displayed first. A CRA in the
// middle of a stream does not end the sequence, and its RASL pictures are
// displayed before it as usual. Units that take no place get rank -1: the
// second field of an H.264 field pair (its frame's packet is in the first
// field) and the RASL pictures of a CRA that begins the stream, which
// decoders drop. MPEG-2 units keep their stream order.
#ifndef QNVTOOL_PICTURE_ORDER_H
#define QNVTOOL_PICTURE_ORDER_H

#include <cstdint>
#include <deque>
#include <memory>
#include <vector>

#include "qnvutil/picorder.h"
#include "tools/qnvtool/access_units.h"
#include "tools/qnvtool/display_order.h"

namespace qnv::order {
class AccessUnitSplitter;
}

namespace qnvtool {

class AccessUnitReader;

// How an access unit's picture is coded: H.264 field pictures are coded
// one field per access unit.
enum class PictureStructure { kFrame, kTopField, kBottomField };

class PictureRanker {
public:
    explicit PictureRanker(VideoCodec codec) : codec_(codec) {}

    // The next access unit in decoding order, with the splitter that read
    // it (for the sets of its first slice).
    void add(const uint8_t* unit, uint32_t size, const qnv::order::AccessUnitSplitter* sets);
    // The structure of the unit last added.
    PictureStructure structure() const { return structure_; }
    // The earliest unit not yet handed out, once its rank is known.
    bool pop(int64_t& rank) { return order_ && order_->pop(rank); }
    // End of the stream: the remaining units get their ranks.
    void finish() {
        if (order_) order_->finish();
    }
    // Display places handed out so far.
    int64_t ranked() const { return order_ ? order_->ranked() : 0; }
    // Units added and not yet popped.
    size_t waiting() const { return order_ ? order_->waiting() : 0; }

private:
    VideoCodec codec_;
    PicOrderState state_{};
    std::unique_ptr<DisplayOrder> order_;
    int32_t fallbackPoc_ = 0;  // for pictures whose POC cannot be read: stream order
    PictureStructure structure_ = PictureStructure::kFrame;
};

// A stream's access units in decoding order, each handed out once its rank
// is known and, with `lookahead`, once that many further display places
// are known too (or the stream has ended), so that a unit's packet may
// depend on whether the stream ends soon after it. Memory holds the units
// waiting for that, bounded by the reorder limit plus the lookahead.
class RankedUnits {
public:
    RankedUnits(AccessUnitReader& reader, VideoCodec codec, uint32_t lookahead);

    // The next unit: its bytes (valid until the next call), rank (-1: no
    // place of its own) and stream offset. False at the end.
    bool next(const std::vector<uint8_t>*& bytes, int64_t& rank, uint64_t& offset);
    // The structure of the unit last handed out.
    PictureStructure structure() const { return out_.structure; }
    // Display places known so far; after the end, the stream's total.
    int64_t ranked() const { return ranker_.ranked(); }
    bool ended() const { return ended_; }
    // Access units handed out.
    uint64_t units() const { return handed_; }

private:
    struct Slot {
        std::vector<uint8_t> bytes;
        uint64_t offset = 0;
        int64_t rank = 0;
        bool known = false;
        PictureStructure structure = PictureStructure::kFrame;
    };
    bool readOne();  // false at the end of the stream

    AccessUnitReader& reader_;
    PictureRanker ranker_;
    uint32_t lookahead_;
    std::deque<Slot> slots_;  // waiting units, in decoding order
    size_t assigned_ = 0;     // slots with their rank known
    std::vector<Slot> spare_;  // recycled slots, their buffers kept
    Slot out_;                 // the unit last handed out
    bool ended_ = false;
    uint64_t handed_ = 0;
};

}  // namespace qnvtool

#endif
