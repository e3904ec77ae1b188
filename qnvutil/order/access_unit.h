// Access unit boundaries of H.264 and HEVC streams whose NAL units arrive one
// at a time (ITU-T H.264 7.4.1.2.3 and 7.4.1.2.4, H.265 7.4.2.4.4), with the
// parameter sets the stream has carried so far, kept by id.
//
// H.264: after the last VCL unit of a primary coded picture, a delimiter,
// SPS, PPS, SEI, a unit of types 14 to 18, or the first VCL unit of the next
// primary coded picture begins the next access unit. A slice is the first
// of a new picture when it differs from the previous slice in frame_num,
// pic_parameter_set_id, field_pic_flag, bottom_field_flag, nal_ref_idc being
// zero, the POC type 0 or 1 fields, IdrPicFlag or idr_pic_id. Slices of
// redundant pictures, data partitions B and C, and extension units belong to
// the picture they follow. A slice whose header cannot be read with the sets
// seen so far is taken as a new picture when first_mb_in_slice is 0.
//
// HEVC: after the last VCL unit of a picture, a delimiter, VPS, SPS, PPS,
// prefix SEI, a unit of types 41 to 44 or 48 to 55, or a VCL unit with
// first_slice_segment_in_pic_flag begins the next access unit; only units
// of layer 0 do.
#ifndef QNVUTIL_QNVUTIL_ORDER_ACCESS_UNIT_H
#define QNVUTIL_QNVUTIL_ORDER_ACCESS_UNIT_H

#include <cstdint>
#include <memory>

#include "foundation/nal/nal.h"
#include "qnvutil/h264.h"
#include "qnvutil/hevc.h"

namespace qnv::order {

class AccessUnitSplitter {
public:
    explicit AccessUnitSplitter(nal::Codec codec);
    ~AccessUnitSplitter();
    AccessUnitSplitter(const AccessUnitSplitter&) = delete;
    AccessUnitSplitter& operator=(const AccessUnitSplitter&) = delete;

    // Whether the unit (NAL header first, escaped) begins a new access unit;
    // the stream's first unit does. Call note() with the same unit next.
    bool opens(const uint8_t* unit, uint32_t size);
    // Takes the unit into the state: parameter sets are kept, and a slice
    // becomes the previous slice. Kept apart from opens() so that a parameter
    // set that begins the next access unit does not change the sets of the
    // one it ends.
    void note(const uint8_t* unit, uint32_t size);

    // The sets named by the current picture's first slice; null until such a
    // slice has named sets that the stream carried.
    const H264SpsRecord* h264Sps() const { return h264Sps_; }
    const H264PpsRecord* h264Pps() const { return h264Pps_; }
    const HevcSpsRecord* hevcSps() const { return hevcSps_; }
    const HevcPpsRecord* hevcPps() const { return hevcPps_; }

private:
    struct Sets;
    bool opensH264(const uint8_t* unit, uint32_t size);
    bool opensHevc(const uint8_t* unit, uint32_t size);
    void noteH264(const uint8_t* unit, uint32_t size);
    void noteHevc(const uint8_t* unit, uint32_t size);

    nal::Codec codec_;
    std::unique_ptr<Sets> sets_;
    bool started_ = false;
    bool picture_ = false;     // the current access unit holds a primary picture's VCL unit
    bool firstSlice_ = false;  // the unit last given to opens() was a picture's first slice
    const H264SpsRecord* h264Sps_ = nullptr;
    const H264PpsRecord* h264Pps_ = nullptr;
    const HevcSpsRecord* hevcSps_ = nullptr;
    const HevcPpsRecord* hevcPps_ = nullptr;
};

}  // namespace qnv::order

#endif
