// Picture order counts of H.264 (8.2.1) and HEVC (8.3.1) frames taken one
// at a time in decoding order, from their first slice header.
#include "qnvutil/picorder.h"

#include <algorithm>
#include <memory>

#include "foundation/nal/nal.h"
#include "qnvutil/h264/slices.h"
#include "qnvutil/hevc/hevc_slice.h"

namespace qnv {
namespace {

// The signed value of an se(v) code number, as the SPS record keeps the
// POC type 1 offsets.
int64_t signedFromCode(int32_t code) {
    const uint32_t k = static_cast<uint32_t>(code);
    return (k & 1) ? int64_t(k / 2) + 1 : -int64_t(k / 2);
}

// The POC's most significant part from the last one (8-3, 8-63).
int64_t pocMsb(int64_t prevMsb, int64_t prevLsb, int64_t lsb, int64_t maxLsb) {
    if (lsb < prevLsb && prevLsb - lsb >= maxLsb / 2) return prevMsb + maxLsb;
    if (lsb > prevLsb && lsb - prevLsb > maxLsb / 2) return prevMsb - maxLsb;
    return prevMsb;
}

int32_t clampPoc(int64_t v) { return static_cast<int32_t>(std::clamp<int64_t>(v, INT32_MIN, INT32_MAX)); }

nal::Framing framingOf(int8_t lengthPrefixed) {
    return lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB;
}

bool hasMmco5(const H264SliceHeader& h) {
    if (!h.dec_ref_pic_marking.adaptive_ref_pic_marking_mode_flag) return false;
    for (int32_t op : h.dec_ref_pic_marking.memory_management_control_operation) {
        if (op == 0) return false;
        if (op == 5) return true;
    }
    return false;
}

uint32_t h264Order(PicOrderState& st, const H264SliceHeader& h, const H264SpsRecord& sps, bool endOfSequence,
                   int32_t* poc) {
    const bool idr = h.nal_unit_type == 5;
    const bool ref = h.nal_ref_idc != 0;
    const bool field = h.field_pic_flag != 0;
    const bool bottom = field && h.bottom_field_flag != 0;
    const bool mmco5 = hasMmco5(h);
    const int64_t maxFrameNum = int64_t(1) << (sps.log2_max_frame_num_minus4 + 4);
    int64_t top = 0, bot = 0;

    if (sps.pic_order_cnt_type == 0) {
        int64_t prevMsb = st.prevPicOrderCntMsb, prevLsb = st.prevPicOrderCntLsb;
        if (idr) {
            prevMsb = prevLsb = 0;
        } else if (st.prevRefHadMmco5) {
            prevMsb = 0;
            prevLsb = st.prevRefBottomField ? 0 : st.prevRefTopFieldOrderCnt;
        }
        const int64_t maxLsb = int64_t(1) << (sps.log2_max_pic_order_cnt_lsb_minus4 + 4);
        const int64_t lsb = h.pic_order_cnt_lsb;
        const int64_t msb = pocMsb(prevMsb, prevLsb, lsb, maxLsb);
        if (!bottom) top = msb + lsb;
        bot = field ? msb + lsb : top + h.delta_pic_order_cnt_bottom;
        if (ref) {
            st.prevPicOrderCntMsb = clampPoc(msb);
            st.prevPicOrderCntLsb = clampPoc(lsb);
        }
    } else {
        int64_t prevOffset = st.prevHadMmco5 ? 0 : st.prevFrameNumOffset;
        const int64_t prevFrameNum = st.prevHadMmco5 ? 0 : st.prevFrameNum;
        int64_t offset = 0;
        if (!idr) offset = prevFrameNum > h.frame_num ? prevOffset + maxFrameNum : prevOffset;
        if (sps.pic_order_cnt_type == 1) {
            const int64_t cycle = std::max(sps.num_ref_frames_in_pic_order_cnt_cycle, 0);
            const int64_t perFrame = signedFromCode(sps.offset_for_ref_frame);
            int64_t absFrameNum = cycle != 0 ? offset + h.frame_num : 0;
            if (!ref && absFrameNum > 0) --absFrameNum;
            int64_t expected = 0;
            if (absFrameNum > 0) {
                const int64_t cycles = (absFrameNum - 1) / cycle, inCycle = (absFrameNum - 1) % cycle;
                expected = cycles * cycle * perFrame + (inCycle + 1) * perFrame;
            }
            if (!ref) expected += signedFromCode(sps.offset_for_non_ref_pic);
            const int64_t topToBottom = signedFromCode(sps.offset_for_top_to_bottom_field);
            if (!field) {
                top = expected + h.delta_pic_order_cnt[0];
                bot = top + topToBottom + h.delta_pic_order_cnt[1];
            } else if (!bottom) {
                top = expected + h.delta_pic_order_cnt[0];
            } else {
                bot = expected + topToBottom + h.delta_pic_order_cnt[0];
            }
        } else {
            const int64_t temp = idr ? 0 : 2 * (offset + h.frame_num) - (ref ? 0 : 1);
            top = bot = temp;
        }
        st.prevFrameNumOffset = clampPoc(offset);
        st.prevFrameNum = h.frame_num;
    }
    const int64_t picPoc = !field ? std::min(top, bot) : bottom ? bot : top;
    *poc = clampPoc(picPoc);

    // A second field: opposite parity and the same frame_num as a lone
    // first field just before it (an IDR field follows only an IDR field).
    uint32_t result = idr ? QNV_PICORDER_NEW_SEQUENCE : 0;
    if (field && st.firstFieldPending && st.firstFieldFrameNum == h.frame_num &&
        st.firstFieldBottom != static_cast<int32_t>(bottom) && (!idr || st.firstFieldIdr)) {
        result = QNV_PICORDER_SECOND_FIELD;
        st.firstFieldPending = 0;
    } else {
        st.firstFieldPending = field;
        st.firstFieldFrameNum = h.frame_num;
        st.firstFieldBottom = bottom;
        st.firstFieldIdr = idr;
    }

    // After operation 5 the picture counts as frame_num 0 and its counts
    // are taken relative to its own POC (8.2.1).
    st.prevHadMmco5 = mmco5;
    if (mmco5) {
        st.prevFrameNum = 0;
        st.prevFrameNumOffset = 0;
    }
    if (ref) {
        st.prevRefHadMmco5 = mmco5;
        st.prevRefBottomField = bottom;
        st.prevRefTopFieldOrderCnt = mmco5 ? clampPoc(top - picPoc) : clampPoc(top);
    }
    st.started = 1;
    st.endOfSequence = endOfSequence;
    return result;
}

uint32_t hevcOrder(PicOrderState& st, const hevc::HevcSliceHeader& h, const HevcSpsRecord& sps, bool endOfSequence,
                   int32_t* poc) {
    const uint32_t type = h.nal_unit_type;
    const bool irap = hevc::isIrap(type);
    const bool cra = type == nal::hevc::kCra;
    // IDR and BLA always; a CRA first in the stream or after an end of sequence.
    const bool noRaslOutput = irap && (!cra || !st.started || st.endOfSequence);
    const int64_t maxLsb = int64_t(1) << (sps.log2_max_pic_order_cnt_lsb_minus4 + 4);
    const int64_t lsb = hevc::isIdr(type) ? 0 : h.slice_pic_order_cnt_lsb;
    const int64_t msb = noRaslOutput ? 0 : pocMsb(st.prevPicOrderCntMsb, st.prevPicOrderCntLsb, lsb, maxLsb);
    *poc = clampPoc(msb + lsb);

    uint32_t result = noRaslOutput ? QNV_PICORDER_NEW_SEQUENCE : 0;
    if (irap) st.skippingRasl = noRaslOutput && cra;
    const bool rasl = type == 8 || type == 9, radl = type == 6 || type == 7;
    if (rasl && st.skippingRasl) result |= QNV_PICORDER_NOT_OUTPUT;
    if (!hevc::isIrap(type) && !rasl && !radl && type <= 9) st.skippingRasl = 0;  // a trailing picture follows

    // prevTid0Pic: TemporalId 0 and not RASL, RADL or a sub-layer non-reference picture.
    const bool subLayerNonRef = type <= 14 && type % 2 == 0;
    if (h.nuh_temporal_id_plus1 == 1 && !rasl && !radl && !subLayerNonRef) {
        st.prevPicOrderCntMsb = clampPoc(msb);
        st.prevPicOrderCntLsb = clampPoc(lsb);
    }
    st.started = 1;
    st.endOfSequence = endOfSequence;
    return result;
}

}  // namespace
}  // namespace qnv

using namespace qnv;

QNV_BEGIN_C

QNV_API uint32_t qnvutilPicOrderCount(PicOrderState* state, const uint8_t* frame, uint32_t size, int8_t lengthPrefixed,
                                      const H264SpsRecord* sps, const H264PpsRecord* pps, int32_t* poc) {
    if (state == nullptr || frame == nullptr || sps == nullptr || pps == nullptr || poc == nullptr)
        return QNV_PICORDER_FAILED;
    nal::UnitWalk walk(frame, size, framingOf(lengthPrefixed));
    H264SliceHeader header;
    bool haveSlice = false, endOfSequence = false;
    for (nal::Unit u; walk.next(u);) {
        if (u.size == 0) continue;
        const uint32_t type = nal::unitType(nal::Codec::kH264, frame[u.header()]);
        if (type == nal::h264::kEndOfSequence) endOfSequence = true;
        if (haveSlice || (type != nal::h264::kNonIdrSlice && type != nal::h264::kIdrSlice)) continue;
        BitBuffer bb{const_cast<uint8_t*>(frame + u.header()), u.size, u.size * 8, 0};
        haveSlice = readSliceHeader(&bb, sps, pps, &header, nullptr) != kSliceFailed;
        if (!haveSlice) return QNV_PICORDER_FAILED;
    }
    if (!haveSlice) return QNV_PICORDER_FAILED;
    return h264Order(*state, header, *sps, endOfSequence, poc);
}

QNV_API uint32_t qnvutilPicOrderCountHevc(PicOrderState* state, const uint8_t* frame, uint32_t size,
                                          int8_t lengthPrefixed, const HevcSpsRecord* sps, const HevcPpsRecord* pps,
                                          int32_t* poc) {
    if (state == nullptr || frame == nullptr || sps == nullptr || pps == nullptr || poc == nullptr)
        return QNV_PICORDER_FAILED;
    nal::UnitWalk walk(frame, size, framingOf(lengthPrefixed));
    auto header = std::make_unique<hevc::HevcSliceHeader>();
    bool haveSlice = false, endOfSequence = false;
    for (nal::Unit u; walk.next(u);) {
        if (u.size < 3) continue;
        const uint32_t type = nal::unitType(nal::Codec::kHevc, frame[u.header()]);
        if (type == nal::hevc::kEndOfSequence) endOfSequence = true;
        if (haveSlice || !nal::isCodedSlice(nal::Codec::kHevc, type)) continue;
        // the picture's first slice segment
        if ((frame[u.header() + 2] & 0x80) == 0) continue;
        haveSlice = hevc::readSliceSegmentHeader(frame + u.header(), u.size, *sps, *pps, *header) == hevc::SliceRead::kOk;
        if (!haveSlice) return QNV_PICORDER_FAILED;
    }
    if (!haveSlice) return QNV_PICORDER_FAILED;
    uint32_t result = hevcOrder(*state, *header, *sps, endOfSequence, poc);
    if (pps->output_flag_present_flag && header->pic_output_flag == 0) result |= QNV_PICORDER_NOT_OUTPUT;
    return result;
}

QNV_END_C
