// HEVC decoder configuration record ('hvcC') reader and writer, and the scan
// of an Annex B frame for its parameter sets and SEI.
#include <cstddef>
#include <cstring>

#include "foundation/nal/nal.h"
#include "foundation/nal/sei.h"
#include "foundation/nalscan/nalscan.h"
#include "qnvutil/hevc/hevc_internal.h"

using namespace qnv;
using namespace qnv::hevc;

namespace {

constexpr uint32_t kVpsType = nal::hevc::kVps, kSpsType = nal::hevc::kSps, kPpsType = nal::hevc::kPps,
                   kPrefixSeiType = nal::hevc::kPrefixSei;

// Steps 2-3 of reading a record: the fixed header up to bitDepthChromaMinus8.
// False at the first reserved group that is not all ones.
bool readConfigHeader(BitBuffer* bb, HevcConfigRecord* c) {
    c->configurationVersion = ReadBits(bb, 8);
    c->general_profile_space = ReadBits(bb, 2);
    c->general_tier_flag = ReadBits(bb, 1);
    c->general_profile_idc = ReadBits(bb, 5);
    c->general_profile_compatibility_flags = ReadBits(bb, 32);
    const uint64_t constraints = ReadBits64(bb, 48);
    c->general_constraint_indicator_flags_lo = static_cast<uint32_t>(constraints);
    c->general_constraint_indicator_flags_hi = static_cast<uint32_t>(constraints >> 32);
    c->general_level_idc = ReadBits(bb, 8);
    struct Group {
        uint32_t ones, width;
        uint32_t* field;
    };
    const Group groups[] = {{4, 12, &c->min_spatial_segmentation_idc},
                            {6, 2, &c->parallelismType},
                            {6, 2, &c->chromaFormat},
                            {5, 3, &c->bitDepthLumaMinus8},
                            {5, 3, &c->bitDepthChromaMinus8}};
    for (const Group& g : groups) {
        if (ReadBits(bb, g.ones) != (1u << g.ones) - 1u) {
            ErrOut("Hevc Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
            return false;
        }
        *g.field = ReadBits(bb, g.width);
    }
    return true;
}

}  // namespace

extern "C" {

uint32_t qnvutilRead_HEVC_CR(BitBuffer* reader, HevcConfigRecord* config, HevcVpsRecord* vps, HevcSpsRecord* sps,
                             HevcPpsRecord* pps) {
    if (config == nullptr || reader == nullptr || reader->sizeBytes == 0) return 0;
    const uint32_t scratchSize = reader->sizeBytes + 8;  // spare bytes for the bit reader
    auto* scratch = static_cast<uint8_t*>(QxAlloc(scratchSize));
    if (scratch == nullptr) return 0xFFFFFFFFu;
    std::memset(scratch, 0, scratchSize);
    std::memcpy(scratch, reader->data, reader->sizeBytes);
    BitBuffer bb{scratch, scratchSize, reader->sizeBits, 0};

    auto finish = [&](uint32_t result) {
        reader->bitPos = bb.bitPos;
        QxFree(scratch);
        return result;
    };

    for (int attempt = 0;; ++attempt) {
        bb.bitPos = reader->bitPos + 64;  // box size and type
        if (readConfigHeader(&bb, config)) break;
        if (attempt == 1) return finish(0xFFFFFFFFu);
        // The record may have been stored with emulation-prevention bytes.
        const uint32_t removed = nal::unescape(scratch, scratch, reader->sizeBytes, {.from = 3});
        bb.sizeBits -= 8 * removed;
    }
    config->avgFrameRate = ReadBits(&bb, 16);
    config->constantFrameRate = ReadBits(&bb, 2);
    config->numTemporalLayers = ReadBits(&bb, 3);
    config->temporalIdNested = ReadBits(&bb, 1);
    config->lengthSizeMinusOne = ReadBits(&bb, 2);
    config->numOfArrays = ReadBits(&bb, 8);
    if (config->numOfArrays < 1) return finish(0);

    uint32_t result = 0;  // bit position of the end of the last unit taken into account
    bool metVps = false, metSps = false, metPps = false;
    for (uint32_t a = 0; a < config->numOfArrays; ++a) {
        SkipBits(&bb, 1);  // array_completeness
        const uint32_t at = bb.bitPos;
        const uint32_t reserved = ReadBit(&bb);
        if (at >= bb.sizeBits || reserved != 0) {
            ErrOut("Hevc Reserved bits incorrect %s %d", kVidUtilSource, __LINE__);
            bb.bitPos = at + 1;
            return finish(result / 8);
        }
        const uint32_t type = ReadBits(&bb, 6);
        const uint32_t count = ReadBits(&bb, 16);
        for (uint32_t n = 0; n < count; ++n) {
            const uint32_t length = ReadBits(&bb, 16);
            const uint32_t start = bb.bitPos;
            const uint64_t end = uint64_t(start) + 8ull * length;
            if (end > bb.sizeBits) {
                ErrOut("Hevc read is past end of bitstream %s %d", kVidUtilSource, __LINE__);
                return finish(0xFFFFFFFFu);
            }
            BitBuffer unit{scratch, scratchSize, bb.sizeBits, start};
            bool parsed = true;
            if (type == kVpsType && vps != nullptr && vps->ptl.general_level_idc == 0) {
                qnvutilRead_HEVC_VPS(&unit, vps, config, 8 * length);
            } else if (type == kSpsType && sps != nullptr && sps->ptl.general_level_idc == 0) {
                qnvutilRead_HEVC_SPS(&unit, sps, config, 8 * length);
            } else if (type == kPpsType && pps != nullptr && pps->num_tile_columns_minus1 == 0) {
                // Deliberately keyed on num_tile_columns_minus1: a PPS without
                // tiles is parsed again by each following PPS.
                qnvutilRead_HEVC_PPS(&unit, pps, config, 8 * length);
            } else {
                parsed = false;
                unit.bitPos = static_cast<uint32_t>(end);
            }
            if (unit.bitPos != end) {
                ErrOut("Hevc read is not the same length as entry size (%d <> %d) %s %d", static_cast<int>(unit.bitPos),
                       static_cast<int>(end), kVidUtilSource, __LINE__);
            }
            // guard: a reader's failure rewinds the position to the start of
            // its own unit; go on from the entry's end so that the walk
            // always moves forward.
            bb.bitPos = unit.bitPos < start ? static_cast<uint32_t>(end) : unit.bitPos;
            if (parsed || !(metVps && metSps && metPps)) result = bb.bitPos;
            metVps |= type == kVpsType;
            metSps |= type == kSpsType;
            metPps |= type == kPpsType;
        }
    }
    return finish(result / 8);
}

uint32_t qnvutilWrite_HEVC_CR(BitBuffer* out, HevcConfigRecord* config, uint8_t* vpsNal, uint8_t* spsNal,
                              uint8_t* ppsNal, int32_t vpsSize, int32_t spsSize, int32_t ppsSize) {
    if (out == nullptr) return 0;
    if (config != nullptr) {
        const HevcConfigRecord& c = *config;
        WriteBits(out, 8, static_cast<int32_t>(c.configurationVersion));
        WriteBits(out, 2, static_cast<int32_t>(c.general_profile_space));
        WriteBits(out, 1, static_cast<int32_t>(c.general_tier_flag));
        WriteBits(out, 5, static_cast<int32_t>(c.general_profile_idc));
        WriteBits(out, 32, static_cast<int32_t>(c.general_profile_compatibility_flags));
        WriteBits64(out, 48, uint64_t(c.general_constraint_indicator_flags_hi) << 32 | c.general_constraint_indicator_flags_lo);
        WriteBits(out, 8, static_cast<int32_t>(c.general_level_idc));
        WriteBits(out, 4, 0xF);
        WriteBits(out, 12, static_cast<int32_t>(c.min_spatial_segmentation_idc));
        WriteBits(out, 6, 0x3F);
        WriteBits(out, 2, static_cast<int32_t>(c.parallelismType));
        WriteBits(out, 6, 0x3F);
        WriteBits(out, 2, static_cast<int32_t>(c.chromaFormat));
        WriteBits(out, 5, 0x1F);
        WriteBits(out, 3, static_cast<int32_t>(c.bitDepthLumaMinus8));
        WriteBits(out, 5, 0x1F);
        WriteBits(out, 3, static_cast<int32_t>(c.bitDepthChromaMinus8));
        WriteBits(out, 16, static_cast<int32_t>(c.avgFrameRate));
        WriteBits(out, 2, static_cast<int32_t>(c.constantFrameRate));
        WriteBits(out, 3, static_cast<int32_t>(c.numTemporalLayers));
        WriteBits(out, 1, static_cast<int32_t>(c.temporalIdNested));
        WriteBits(out, 2, static_cast<int32_t>(c.lengthSizeMinusOne));
        WriteBits(out, 8, static_cast<int32_t>(c.numOfArrays));
    }
    const struct {
        uint32_t type;
        const uint8_t* nal;
        int32_t size;
    } arrays[] = {{kVpsType, vpsNal, vpsSize}, {kSpsType, spsNal, spsSize}, {kPpsType, ppsNal, ppsSize}};
    for (const auto& a : arrays) {
        if (a.size <= 0 || a.nal == nullptr) continue;  // guard: a unit without bytes is left out
        WriteBits(out, 1, 1);  // array_completeness
        WriteBits(out, 1, 0);
        WriteBits(out, 6, static_cast<int32_t>(a.type));
        WriteBits(out, 16, 1);      // numNalus
        WriteBits(out, 16, a.size);  // low 16 bits of the size
        for (int32_t i = 0; i < a.size; ++i) WriteBits(out, 8, a.nal[i]);
    }
    return out->bitPos / 8;
}

uint32_t qnvutilGetHvcc(void) { return 0xFFFFFFFFu; }

}  // extern "C"

namespace {

void inspectPicTiming(BitBuffer* bb, const HevcSpsRecord* sps, HevcFrameContext* frame) {
    frame->found |= HEVC_FOUND_PIC_TIMING;
    if (sps == nullptr) return;
    if (sps->frame_field_info_present_flag) {
        frame->picStruct = ReadBits(bb, 4);
        frame->sourceScanType = ReadBits(bb, 2);
        frame->duplicateFlag = ReadBits(bb, 1);
    }
    // guard: delay lengths above 32 bits (only from a malformed SPS) read 32
    if (sps->vui_hrd_parameters_present_flag &&
        (sps->nal_hrd_parameters_present_flag || sps->vcl_hrd_parameters_present_flag)) {
        frame->auCpbRemovalDelayMinus1 = ReadBits(bb, atMost(sps->au_cpb_removal_delay_length_minus1 + 1, 32));
        frame->picDpbOutputDelay = ReadBits(bb, atMost(sps->dpb_output_delay_length_minus1 + 1, 32));
    }
}

// The first 1024 bytes of a prefix SEI unit.
void inspectSei(const uint8_t* unit, uint32_t size, const HevcSpsRecord* sps, HevcFrameContext* frame) {
    nal::forEachSeiMessage(nal::Codec::kHevc, unit, size, [&](uint32_t type, BitBuffer& payload) {
        if (type == 1 && !(frame->found & HEVC_FOUND_PIC_TIMING)) inspectPicTiming(&payload, sps, frame);
        if (type == 4 && !(frame->found & HEVC_FOUND_CAPTIONS) && nal::readAtscCaptionCount(&payload, &frame->captionCount))
            frame->found |= HEVC_FOUND_CAPTIONS;
        if (type == 6 && !(frame->found & HEVC_FOUND_RECOVERY)) {
            frame->recoveryPocCnt = ReadExponentialGolombCodeSigned(&payload);
            frame->exactMatchFlag = ReadBits(&payload, 1);
            frame->brokenLinkFlag = ReadBits(&payload, 1);
            frame->found |= HEVC_FOUND_RECOVERY;
        }
    });
}

}  // namespace

extern "C" uint32_t qnvutilFindNalUnitsHevc(HevcFrameContext* frame, HevcVpsRecord* vps, HevcSpsRecord* sps,
                                            HevcPpsRecord* pps, uint8_t* vpsOut, uint32_t* vpsOutSize, uint8_t* spsOut,
                                            uint32_t* spsOutSize, uint8_t* ppsOut, uint32_t* ppsOutSize) {
    if (frame == nullptr) return 0;
    const uint8_t* data = frame->data;
    // guard: bit positions of the frame must fit 32 bits
    const uint32_t size = data ? atMost(frame->size, 0x1FFFFFFFu) : 0;
    std::memset(reinterpret_cast<uint8_t*>(frame) + offsetof(HevcFrameContext, found), 0,
                sizeof(HevcFrameContext) - offsetof(HevcFrameContext, found));
    nal::UnitCopy vpsCopy(vpsOut, vpsOutSize), spsCopy(spsOut, spsOutSize), ppsCopy(ppsOut, ppsOutSize);
    h264_stream_t* h = h264_new();
    if (h == nullptr) return 0;

    // The find_nal_unit walk, through the walker (block masks kept from unit
    // to unit).
    NalUnitWalker walker(data, size);
    uint32_t walked = 0, offset = 0;
    while (offset < size) {
        const UnitBounds bounds = walker.find(offset);
        if (!bounds.found()) break;
        ++walked;
        const uint32_t at = static_cast<uint32_t>(bounds.start);
        const uint32_t length = static_cast<uint32_t>(bounds.end - bounds.start);
        const uint8_t* unit = data + at;
        read_nal_unit(h, unit, length);
        const uint32_t type = static_cast<uint32_t>(h->nal.nal_unit_type);
        // Each parse merges into a configuration record of its own.
        HevcConfigRecord scratchConfig = {};
        BitBuffer reader{const_cast<uint8_t*>(data), size, size * 8, at * 8};
        switch (type) {
            case kVpsType:
                if (vps) qnvutilRead_HEVC_VPS(&reader, vps, &scratchConfig, length * 8);
                vpsCopy.take(unit, length);
                frame->found |= HEVC_FOUND_VPS;
                break;
            case kSpsType:
                if (sps) qnvutilRead_HEVC_SPS(&reader, sps, &scratchConfig, length * 8);
                spsCopy.take(unit, length);
                frame->found |= HEVC_FOUND_SPS;
                break;
            case kPpsType:
                if (pps) qnvutilRead_HEVC_PPS(&reader, pps, &scratchConfig, length * 8);
                ppsCopy.take(unit, length);
                frame->found |= HEVC_FOUND_PPS;
                break;
            case kPrefixSeiType:
                inspectSei(unit, length, sps, frame);
                break;
            default:
                if (nal::isVcl(nal::Codec::kHevc, type) && !(frame->found & HEVC_FOUND_VCL)) {
                    frame->found |= HEVC_FOUND_VCL;
                    frame->firstVclOffset = at;
                }
                if (type >= nal::hevc::kBlaWLp && type <= nal::hevc::kIrapLast) frame->found |= HEVC_FOUND_IRAP;
                break;
        }
        offset = bounds.end > offset ? static_cast<uint32_t>(bounds.end) : offset + 1;
    }
    h264_free(h);
    return walked;
}
