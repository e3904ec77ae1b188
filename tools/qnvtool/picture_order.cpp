#include "tools/qnvtool/picture_order.h"

#include <map>
#include <memory>

#include "foundation/nal/nal.h"
#include "qnvutil/picorder.h"
#include "tools/qnvtool/display_order.h"

namespace qnvtool {

namespace {

namespace nal = qnv::nal;

// The parameter sets seen so far, by id, and the one a picture last used.
struct H264Sets {
    std::map<int32_t, H264SpsRecord> sps;
    std::map<int32_t, H264PpsRecord> pps;
    void note(const uint8_t* unit, uint32_t size) {
        BitBuffer bb{const_cast<uint8_t*>(unit), size, size * 8, 0};
        const uint32_t type = nal::unitType(nal::Codec::kH264, unit[0]);
        if (type == nal::h264::kSps) {
            H264SpsRecord r{};
            qnvutilRead_SPS(&bb, &r);
            sps[r.seq_parameter_set_id] = r;
        } else if (type == nal::h264::kPps) {
            H264PpsRecord r{};
            qnvutilRead_PPS(&bb, &r);
            pps[r.pic_parameter_set_id] = r;
        }
    }
    static uint32_t reorderLimit(const H264SpsRecord& s) {
        if (s.vui_parameters_present_flag == 1 && s.bitstream_restriction_flag == 1 && s.max_num_reorder_frames >= 0)
            return static_cast<uint32_t>(std::min(s.max_num_reorder_frames, 16));
        return 16;  // the largest DPB
    }
};

struct HevcSets {
    std::map<uint32_t, std::unique_ptr<HevcSpsRecord>> sps;
    std::map<uint32_t, HevcPpsRecord> pps;
    void note(const uint8_t* unit, uint32_t size) {
        const uint32_t type = nal::unitType(nal::Codec::kHevc, unit[0]);
        if (type != nal::hevc::kSps && type != nal::hevc::kPps) return;
        std::vector<uint8_t> copy(unit, unit + size);
        copy.push_back(0);  // the readers' spare byte
        BitBuffer bb{copy.data(), static_cast<uint32_t>(copy.size()), size * 8, 0};
        if (type == nal::hevc::kSps) {
            auto r = std::make_unique<HevcSpsRecord>();
            if (qnvutilRead_HEVC_SPS(&bb, r.get(), nullptr, 0) != 0xFFFFFFFFu) sps[r->sps_seq_parameter_set_id] = std::move(r);
        } else {
            HevcPpsRecord r{};
            if (qnvutilRead_HEVC_PPS(&bb, &r, nullptr, 0) != 0xFFFFFFFFu) pps[r.pps_pic_parameter_set_id] = r;
        }
    }
    // The record keeps the highest sub-layer's value in entry 0.
    static uint32_t reorderLimit(const HevcSpsRecord& s) { return std::min(s.sps_max_num_reorder_pics[0], 16u); }
};

}  // namespace

std::vector<int64_t> displayRanks(const std::vector<uint8_t>& data, const std::vector<AccessUnit>& units,
                                  VideoCodec codec) {
    std::vector<int64_t> ranks;
    ranks.reserve(units.size());
    if (codec == VideoCodec::kMpeg2) {
        for (size_t i = 0; i < units.size(); ++i) ranks.push_back(static_cast<int64_t>(i));
        return ranks;
    }
    const bool hevc = codec == VideoCodec::kHevc;
    H264Sets avc;
    HevcSets hev;
    PicOrderState state{};
    std::unique_ptr<DisplayOrder> order;
    int32_t fallbackPoc = 0;  // for pictures whose POC cannot be read: stream order
    for (const AccessUnit& au : units) {
        const uint8_t* frame = data.data() + au.offset;
        nal::UnitWalk walk(frame, au.size, nal::Framing::kAnnexB);
        for (nal::Unit u; walk.next(u);) {
            if (u.size == 0) continue;
            if (hevc)
                hev.note(frame + u.header(), u.size);
            else
                avc.note(frame + u.header(), u.size);
        }
        uint32_t flags = QNV_PICORDER_FAILED, limit = 16;
        int32_t poc = 0;
        if (hevc) {
            for (const auto& [id, pps] : hev.pps) {
                auto sps = hev.sps.find(pps.pps_seq_parameter_set_id);
                if (sps == hev.sps.end()) continue;
                PicOrderState trial = state;
                flags = qnvutilPicOrderCountHevc(&trial, frame, au.size, 0, sps->second.get(), &pps, &poc);
                if (flags == QNV_PICORDER_FAILED) continue;
                state = trial;
                limit = HevcSets::reorderLimit(*sps->second);
                break;
            }
        } else {
            for (const auto& [id, pps] : avc.pps) {
                auto sps = avc.sps.find(pps.seq_parameter_set_id);
                if (sps == avc.sps.end()) continue;
                flags = qnvutilPicOrderCount(&state, frame, au.size, 0, &sps->second, &pps, &poc);
                if (flags == QNV_PICORDER_FAILED) continue;
                limit = H264Sets::reorderLimit(sps->second);
                break;
            }
        }
        if (!order) order = std::make_unique<DisplayOrder>(limit);
        if (flags == QNV_PICORDER_FAILED) {
            flags = 0;
            poc = ++fallbackPoc + (1 << 30);
        }
        const bool ranked = (flags & (QNV_PICORDER_SECOND_FIELD | QNV_PICORDER_NOT_OUTPUT)) == 0;
        order->push(poc, (flags & QNV_PICORDER_NEW_SEQUENCE) != 0, ranked);
        for (int64_t r; order->pop(r);) ranks.push_back(r);
    }
    if (order) {
        order->finish();
        for (int64_t r; order->pop(r);) ranks.push_back(r);
    }
    return ranks;
}

}  // namespace qnvtool
