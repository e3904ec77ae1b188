#include "qnvutil/order/access_unit.h"

#include <array>
#include <vector>

#include "qnvutil/h264/slices.h"

namespace qnv::order {

namespace {

// The first bytes of a unit's RBSP, for reading the ids at the start of a
// slice header.
struct RbspHead {
    std::array<uint8_t, 16> bytes{};
    uint32_t size = 0;
    RbspHead(const uint8_t* unit, uint32_t unitSize) {
        nal::RbspReader reader(unit, unitSize);
        for (uint8_t b; size < bytes.size() && reader.next(b);) bytes[size++] = b;
    }
    BitBuffer bits(uint32_t fromByte) {
        // guard: a header byte count beyond the bytes read leaves nothing to read
        const uint32_t from = fromByte < size ? fromByte : size;
        return BitBuffer{bytes.data() + from, size - from, (size - from) * 8, 0};
    }
};

// What 7.4.1.2.4 compares between a slice and the one before it.
struct H264SliceKey {
    int32_t frameNum, ppsId, field, bottom, refIdcZero, pocLsb, deltaBottom, delta0, delta1, idr, idrPicId;
    int32_t pocType;
    bool operator==(const H264SliceKey&) const = default;
};

}  // namespace

struct AccessUnitSplitter::Sets {
    std::array<std::unique_ptr<H264SpsRecord>, 32> h264Sps;
    std::array<std::unique_ptr<H264PpsRecord>, 256> h264Pps;
    std::array<std::unique_ptr<HevcSpsRecord>, 16> hevcSps;
    std::array<std::unique_ptr<HevcPpsRecord>, 64> hevcPps;
    H264SliceHeader slice;  // work record
    H264SliceKey lastKey{};
    bool haveKey = false;   // lastKey is the previous slice's
    // What opens() found, taken by note().
    enum class Key { kNone, kRead, kKeep } pending = Key::kNone;
    H264SliceKey pendingKey{};
    const void* pendingSps = nullptr;
    const void* pendingPps = nullptr;
    std::vector<uint8_t> copy;  // an HEVC parameter set with the readers' spare byte
    std::unique_ptr<HevcSpsRecord> spare;  // the HEVC SPS being read
};

AccessUnitSplitter::AccessUnitSplitter(nal::Codec codec) : codec_(codec), sets_(std::make_unique<Sets>()) {}
AccessUnitSplitter::~AccessUnitSplitter() = default;

bool AccessUnitSplitter::opens(const uint8_t* unit, uint32_t size) {
    firstSlice_ = false;
    sets_->pending = Sets::Key::kNone;
    sets_->pendingSps = sets_->pendingPps = nullptr;
    if (size == 0) return !started_;
    const bool opens = codec_ == nal::Codec::kHevc ? opensHevc(unit, size) : opensH264(unit, size);
    return opens || !started_;
}

bool AccessUnitSplitter::opensH264(const uint8_t* unit, uint32_t size) {
    namespace t = nal::h264;
    const uint32_t type = nal::unitType(nal::Codec::kH264, unit[0]);
    if (type == t::kSei || type == t::kSps || type == t::kPps || type == t::kAud ||
        (type >= t::kPrefixNal && type <= 18))
        return picture_;
    if (type != t::kNonIdrSlice && type != t::kIdrSlice && type != t::kSliceDataA) {
        sets_->pending = Sets::Key::kKeep;
        return false;
    }

    // The slice's pic_parameter_set_id, behind first_mb_in_slice and slice_type.
    RbspHead head(unit, size);
    BitBuffer ids = head.bits(1);
    const uint32_t firstMb = ReadExponentialGolombCode(&ids);
    ReadExponentialGolombCode(&ids);
    const uint32_t ppsId = ReadExponentialGolombCode(&ids);
    const H264PpsRecord* pps = ppsId < 256 ? sets_->h264Pps[ppsId].get() : nullptr;
    const int32_t spsId = pps ? pps->seq_parameter_set_id : -1;
    const H264SpsRecord* sps = spsId >= 0 && spsId < 32 ? sets_->h264Sps[spsId].get() : nullptr;
    H264SliceHeader& h = sets_->slice;
    BitBuffer bb{const_cast<uint8_t*>(unit), size, size * 8, 0};
    bool differs;
    if (sps == nullptr || readSliceHeader(&bb, sps, pps, &h, nullptr) == kSliceFailed) {
        differs = firstMb == 0;  // without the sets, the picture's first macroblock marks it
        sps = nullptr;
        pps = nullptr;
    } else if (h.redundant_pic_cnt > 0) {
        sets_->pending = Sets::Key::kKeep;  // part of the primary picture before it
        return false;
    } else {
        const int32_t pocType = sps->pic_order_cnt_type;
        const bool idr = h.nal_unit_type == t::kIdrSlice;
        sets_->pendingKey = H264SliceKey{h.frame_num,
                                         h.pic_parameter_set_id,
                                         h.field_pic_flag,
                                         h.bottom_field_flag,
                                         h.nal_ref_idc == 0,
                                         pocType == 0 ? h.pic_order_cnt_lsb : 0,
                                         pocType == 0 ? h.delta_pic_order_cnt_bottom : 0,
                                         pocType == 1 ? h.delta_pic_order_cnt[0] : 0,
                                         pocType == 1 ? h.delta_pic_order_cnt[1] : 0,
                                         idr,
                                         idr ? h.idr_pic_id : 0,
                                         pocType};
        sets_->pending = Sets::Key::kRead;
        differs = sets_->haveKey ? !(sets_->pendingKey == sets_->lastKey) : firstMb == 0;
    }
    firstSlice_ = !picture_ || differs;
    sets_->pendingSps = sps;
    sets_->pendingPps = pps;
    return picture_ && differs;
}

bool AccessUnitSplitter::opensHevc(const uint8_t* unit, uint32_t size) {
    namespace t = nal::hevc;
    if (size < 2) return false;
    const uint32_t type = nal::unitType(nal::Codec::kHevc, unit[0]);
    const uint32_t layer = (uint32_t(unit[0] & 1) << 5) | (unit[1] >> 3);
    if (layer != 0) return false;
    if (!nal::isVcl(nal::Codec::kHevc, type))
        return picture_ && ((type >= t::kVps && type <= t::kAud) || type == t::kPrefixSei ||
                            (type >= 41 && type <= 44) || (type >= 48 && type <= 55));
    RbspHead head(unit, size);
    BitBuffer bits = head.bits(2);
    firstSlice_ = ReadBit(&bits) == 1;
    if (firstSlice_) {
        if (type >= t::kBlaWLp && type <= t::kIrapLast) ReadBit(&bits);  // no_output_of_prior_pics_flag
        const uint32_t ppsId = ReadExponentialGolombCode(&bits);
        const HevcPpsRecord* pps = ppsId < 64 ? sets_->hevcPps[ppsId].get() : nullptr;
        const uint32_t spsId = pps ? pps->pps_seq_parameter_set_id : 16;
        const HevcSpsRecord* sps = spsId < 16 ? sets_->hevcSps[spsId].get() : nullptr;
        sets_->pendingSps = sps;
        sets_->pendingPps = sps ? pps : nullptr;
    }
    return picture_ && firstSlice_;
}

void AccessUnitSplitter::note(const uint8_t* unit, uint32_t size) {
    if (size == 0) return;
    started_ = true;
    Sets& s = *sets_;
    if (firstSlice_) {
        if (codec_ == nal::Codec::kH264) {
            h264Sps_ = static_cast<const H264SpsRecord*>(s.pendingSps);
            h264Pps_ = static_cast<const H264PpsRecord*>(s.pendingPps);
        } else {
            hevcSps_ = static_cast<const HevcSpsRecord*>(s.pendingSps);
            hevcPps_ = static_cast<const HevcPpsRecord*>(s.pendingPps);
        }
    }
    if (codec_ == nal::Codec::kH264)
        noteH264(unit, size);
    else
        noteHevc(unit, size);
}

void AccessUnitSplitter::noteH264(const uint8_t* unit, uint32_t size) {
    namespace t = nal::h264;
    Sets& s = *sets_;
    const uint32_t type = nal::unitType(nal::Codec::kH264, unit[0]);
    BitBuffer bb{const_cast<uint8_t*>(unit), size, size * 8, 0};
    if (type == t::kSps) {
        H264SpsRecord r{};
        qnvutilRead_SPS(&bb, &r);
        if (r.seq_parameter_set_id >= 0 && r.seq_parameter_set_id < 32) {
            auto& slot = s.h264Sps[r.seq_parameter_set_id];
            if (!slot) slot = std::make_unique<H264SpsRecord>();
            *slot = r;
        }
    } else if (type == t::kPps) {
        H264PpsRecord r{};
        qnvutilRead_PPS(&bb, &r);
        if (r.pic_parameter_set_id >= 0 && r.pic_parameter_set_id < 256) {
            auto& slot = s.h264Pps[r.pic_parameter_set_id];
            if (!slot) slot = std::make_unique<H264PpsRecord>();
            *slot = r;
        }
    }
    if (type == t::kNonIdrSlice || type == t::kIdrSlice || type == t::kSliceDataA) {
        if (s.pending == Sets::Key::kRead) s.lastKey = s.pendingKey;
        if (s.pending != Sets::Key::kKeep) s.haveKey = s.pending == Sets::Key::kRead;
        picture_ = true;
    } else if (type == t::kSei || type == t::kSps || type == t::kPps || type == t::kAud ||
               (type >= t::kPrefixNal && type <= 18)) {
        picture_ = false;
    }
}

void AccessUnitSplitter::noteHevc(const uint8_t* unit, uint32_t size) {
    namespace t = nal::hevc;
    Sets& s = *sets_;
    if (size < 2 || ((unit[0] & 1) << 5 | unit[1] >> 3) != 0) return;
    const uint32_t type = nal::unitType(nal::Codec::kHevc, unit[0]);
    if (type == t::kSps || type == t::kPps) {
        s.copy.assign(unit, unit + size);
        s.copy.push_back(0);  // the readers' spare byte
        BitBuffer bb{s.copy.data(), static_cast<uint32_t>(s.copy.size()), size * 8, 0};
        if (type == t::kSps) {
            if (!s.spare) s.spare = std::make_unique<HevcSpsRecord>();
            if (qnvutilRead_HEVC_SPS(&bb, s.spare.get(), nullptr, 0) != 0xFFFFFFFFu &&
                s.spare->sps_seq_parameter_set_id < 16) {
                auto& slot = s.hevcSps[s.spare->sps_seq_parameter_set_id];
                // A set that does not read leaves the one kept under its id.
                std::swap(slot, s.spare);
                if (!s.spare) s.spare = std::make_unique<HevcSpsRecord>();
            }
        } else {
            HevcPpsRecord r{};
            if (qnvutilRead_HEVC_PPS(&bb, &r, nullptr, 0) != 0xFFFFFFFFu && r.pps_pic_parameter_set_id < 64) {
                auto& slot = s.hevcPps[r.pps_pic_parameter_set_id];
                if (!slot) slot = std::make_unique<HevcPpsRecord>();
                *slot = r;
            }
        }
    }
    if (nal::isVcl(nal::Codec::kHevc, type))
        picture_ = true;
    else if ((type >= t::kVps && type <= t::kAud) || type == t::kPrefixSei || (type >= 41 && type <= 44) ||
             (type >= 48 && type <= 55))
        picture_ = false;
}

}  // namespace qnv::order
