// Shared by the stream utilities (H.264, HEVC, AAC, SEI insertion).
#ifndef QNVUTIL_QNVUTIL_QNVVIDUTIL_H
#define QNVUTIL_QNVUTIL_QNVVIDUTIL_H

namespace qnv {

// Source name that located diagnostics carry ("... %s %d" with __LINE__).
inline constexpr const char kVidUtilSource[] = "qnvutil/qnvvidutil";

}  // namespace qnv

#endif
