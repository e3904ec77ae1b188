/* Export and linkage macros shared by the public headers. */
#ifndef QNVUTIL_EXPORT_H
#define QNVUTIL_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define QNV_EXPORT __attribute__((visibility("default")))
#else
#define QNV_EXPORT
#endif

#ifdef __cplusplus
#define QNV_BEGIN_C extern "C" {
#define QNV_END_C }
#define QNV_STATIC_ASSERT(cond, msg) static_assert(cond, msg)
#else
#define QNV_BEGIN_C
#define QNV_END_C
#define QNV_STATIC_ASSERT(cond, msg) _Static_assert(cond, msg)
#endif

/* A C function of the interface. */
#define QNV_API QNV_EXPORT

#endif
