// The scan of one H.264 frame for its parameter sets and SEI, the H.264
// counterpart of qnvutilFindNalUnitsHevc.
#include <cstddef>
#include <cstring>

#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "qnvutil/h264.h"
#include "qnvutil/h264/pic_timing.h"

namespace qnv {

namespace {

// pic_timing (D.1.3): the delays when the SPS has HRD parameters, then
// pic_struct when it has pic_struct_present_flag.
void inspectPicTiming(BitBuffer* bb, const H264SpsRecord* sps, H264FrameContext* frame) {
    frame->found |= H264_FOUND_PIC_TIMING;
    if (sps == nullptr) return;
    const h264::PicTimingLayout layout = h264::picTimingLayout(*sps);
    h264::PicTiming timing{};
    syntax::ReadCoder c(bb);
    h264::picTiming(c, timing, layout);
    if (layout.delays) {
        frame->cpbRemovalDelay = timing.cpb_removal_delay;
        frame->dpbOutputDelay = timing.dpb_output_delay;
    }
    if (layout.picStruct) frame->picStruct = timing.pic_struct;
}

void inspectSei(const uint8_t* unit, uint32_t size, const H264SpsRecord* sps, H264FrameContext* frame) {
    nal::forEachSeiMessage(nal::Codec::kH264, unit, size, [&](uint32_t type, BitBuffer& payload) {
        if (type == 1 && !(frame->found & H264_FOUND_PIC_TIMING)) inspectPicTiming(&payload, sps, frame);
        if (type == 4 && !(frame->found & H264_FOUND_CAPTIONS) && nal::readAtscCaptionCount(&payload, &frame->captionCount))
            frame->found |= H264_FOUND_CAPTIONS;
        if (type == 6 && !(frame->found & H264_FOUND_RECOVERY)) {
            frame->recoveryFrameCnt = ReadExponentialGolombCode(&payload);
            frame->exactMatchFlag = ReadBits(&payload, 1);
            frame->brokenLinkFlag = ReadBits(&payload, 1);
            frame->changingSliceGroupIdc = ReadBits(&payload, 2);
            frame->found |= H264_FOUND_RECOVERY;
        }
    });
}

}  // namespace

}  // namespace qnv

using namespace qnv;

extern "C" uint32_t qnvutilFindNalUnits(H264FrameContext* frame, H264SpsRecord* sps, H264PpsRecord* pps,
                                        uint8_t* spsOut, uint32_t* spsOutSize, uint8_t* ppsOut,
                                        uint32_t* ppsOutSize) {
    if (frame == nullptr) return 0;
    std::memset(reinterpret_cast<uint8_t*>(frame) + offsetof(H264FrameContext, found), 0,
                sizeof(H264FrameContext) - offsetof(H264FrameContext, found));
    nal::UnitCopy spsCopy(spsOut, spsOutSize), ppsCopy(ppsOut, ppsOutSize);
    const uint32_t size = frame->data ? frame->size : 0;
    nal::UnitWalk walk(frame->data, size,
                       frame->lengthPrefixed ? nal::Framing::kLengthPrefixed : nal::Framing::kAnnexB);
    uint32_t walked = 0;
    for (nal::Unit u; walk.next(u);) {
        ++walked;
        if (u.size == 0) continue;
        const uint8_t* unit = frame->data + u.header();
        const uint32_t type = nal::unitType(nal::Codec::kH264, unit[0]);
        // guard: a unit's length in bits is held to 32 bits
        const uint32_t bits = u.size < 0x20000000u ? u.size * 8 : 0xFFFFFFF8u;
        // The readers work on a copy of sizeBytes bytes: nothing past the unit is read.
        BitBuffer reader{const_cast<uint8_t*>(unit), u.size, bits, 0};
        switch (type) {
            case nal::h264::kSps:
                if (sps) qnvutilRead_SPS(&reader, sps);
                spsCopy.take(unit, u.size);
                frame->found |= H264_FOUND_SPS;
                break;
            case nal::h264::kPps:
                if (pps) qnvutilRead_PPS(&reader, pps);
                ppsCopy.take(unit, u.size);
                frame->found |= H264_FOUND_PPS;
                break;
            case nal::h264::kSei:
                inspectSei(unit, u.size, sps, frame);
                break;
            case nal::h264::kAud:
                frame->found |= H264_FOUND_AUD;
                break;
            default:
                if (nal::isVcl(nal::Codec::kH264, type) && !(frame->found & H264_FOUND_VCL)) {
                    frame->found |= H264_FOUND_VCL;
                    frame->firstVclOffset = u.header();
                }
                if (type == nal::h264::kIdrSlice) frame->found |= H264_FOUND_IDR;
                break;
        }
    }
    if (walk.truncated()) frame->found |= H264_FOUND_TRUNCATED;
    return walked;
}
