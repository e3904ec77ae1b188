/*
 * qxutil: the host services beneath qnvUtil (libqxutil.so).
 *
 * Memory, diagnostics, a configuration store kept in XML files, POSIX file
 * access with Win32-style arguments, and base64. Every operation is safe to
 * call from several threads at once.
 */
#ifndef QNVUTIL_QXUTIL_H
#define QNVUTIL_QXUTIL_H

#include <stdint.h>

#include "qnvutil/export.h"

QNV_BEGIN_C

/* ---- Memory --------------------------------------------------------------- */

/* New block of `size` bytes (uninitialised); null on failure. A size of 0
   gives a valid, unique block. Release with QxFree. */
QNV_API void* QxAlloc(uint32_t size);
/* Releases a block from QxAlloc; null is ignored. */
QNV_API void QxFree(void* block);
/* Non-overlapping copy and clear. */
QNV_API void CopyMemoryFast(void* destination, const void* source, uint32_t count);
QNV_API void ZeroMemoryFast(void* destination, uint32_t count);
QNV_API void qxOSCopyMemory(void* destination, const void* source, uint32_t count);
QNV_API void qxOSZeroMemory(void* destination, uint32_t count);

/* ---- Diagnostics ---------------------------------------------------------- */

/* Levels handed to a log sink. ErrOut lines carry QX_LOG_ERROR, ErrFmtOut
   lines the caller's level word, qxOutputDebugString lines QX_LOG_DEBUG. */
#define QX_LOG_ERROR 0u
#define QX_LOG_DEBUG 0xFFFFFFFFu

/* One diagnostic line, printf-style. */
QNV_API void ErrOut(const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 1, 2)))
#endif
    ;
/* One leveled diagnostic line; reserved1 and reserved2 are passed as 0. */
QNV_API void ErrFmtOut(uint32_t level, uint32_t reserved1, uint32_t reserved2, const char* format, ...)
#if defined(__GNUC__)
    __attribute__((format(printf, 4, 5)))
#endif
    ;
/* The debugger-output line (the library's command and timecode traces). */
QNV_API void qxOutputDebugString(const char* text);

/* Receives every diagnostic line. `line` has no line break at its end and
   none inside (embedded CR and LF are replaced by spaces). */
typedef void (*QxLogSink)(uint32_t level, const char* line, void* context);
/* Sends all diagnostics to `sink` instead of standard error; a null sink
   restores standard error. When the call returns, no line is being delivered
   to the previous sink any more. A sink must not call QxSetLogSink. */
QNV_API void QxSetLogSink(QxLogSink sink, void* context);

/* ---- Configuration store ---------------------------------------------------
 *
 * A store is an XML file of keys (paths such as "Quellbox\Advanced", kept with
 * their backslashes) holding named 32-bit and text values. Key paths and value
 * names match without regard to ASCII case, as the Windows registry does, and
 * keep the spelling they were first written with.
 *
 * QXCFG_DEFAULT names the default store, the file "default.xml" in the folder
 * given by $QNVUTIL_CONFIG_DIR, else $XDG_CONFIG_HOME/qnvutil, else
 * ~/.config/qnvutil (the folder is created on the first write). The folder is
 * looked up on every call. Every write to the default store is applied at
 * once: under an exclusive lock on "<file>.lock" the file is re-read, changed,
 * written to a temporary file, flushed to disk and renamed over the old one,
 * so several threads and processes may write at once and a crash never leaves
 * a half-written store. Temporary files of writers that died are removed
 * under the lock. Writers take turns through "<file>.queue": under contention
 * each waits until the writers that were waiting before it have written. The
 * new file keeps the old one's mode (a new store is 0644) and, where the
 * writer may set it, its owner; when the store is a symbolic link, the file
 * it names is replaced and the link kept. Key paths, value names and texts
 * may hold any bytes but NUL (texts even NUL): what XML cannot carry as it
 * is goes into the file as hex.
 *
 * qxCFGOpen opens a store kept in another file (a relative name resolves
 * against the same folder). Reads and writes go to a private copy taken at
 * open; qxCFGClose with keep = 1 applies the writes to the file in one atomic
 * update (merged with what other writers stored meanwhile), keep = 0 drops them.
 *
 * A store file that cannot be parsed or read counts as empty; this is
 * reported once per file through ErrOut. A write to a store whose file could
 * not be parsed first moves that file aside to "<file>.corrupt".
 *
 * Results: 0 on success, QXCFG_MISSING when the key or value does not exist
 * (or has the other type), QXCFG_FAILED when the file could not be locked or
 * written,
 * QXCFG_BADHANDLE for a handle that is not open, QXCFG_BADARG for null
 * arguments.
 */
typedef uint64_t QXCFG;
#define QXCFG_DEFAULT ((QXCFG)~(uint64_t)0)
#define QXCFG_MISSING 2u
#define QXCFG_FAILED 29u
#define QXCFG_BADHANDLE 6u
#define QXCFG_BADARG 87u

/* Opens the store in file `name`; 0 on failure. `flags` is unused (pass 0). */
QNV_API QXCFG qxCFGOpen(const char* name, uint32_t flags);
/* Closes a store from qxCFGOpen; keep = 1 saves its writes, 0 drops them.
   Closing QXCFG_DEFAULT does nothing. */
QNV_API void qxCFGClose(QXCFG store, uint32_t keep);
/* write = 0: reads the value into *value. write = 1: stores *value. */
QNV_API uint32_t qxCFGValueDword(QXCFG store, const char* key, const char* name, uint32_t* value,
                                 uint32_t write);
/* write = 0 with text null: *length receives the text's length in bytes
   (terminator excluded), 0 when the value is absent; the result is 0 either way.
   write = 0 with a buffer: *length is the buffer's size in bytes on entry; up
   to that many bytes are copied, followed by a terminator when room is left,
   and *length receives the text's full length. The result is 0, or
   QXCFG_MISSING when the value is absent.
   write = 1: stores the *length bytes at text (which may hold any bytes). */
QNV_API uint32_t qxCFGValueString(QXCFG store, const char* key, const char* name, char* text,
                                  uint32_t* length, uint32_t write);
/* Removes a value; QXCFG_MISSING when it did not exist. */
QNV_API uint32_t qxCFGDeleteValue(QXCFG store, const char* key, const char* name);

/* ---- Files -----------------------------------------------------------------
 *
 * A file handle is the POSIX file descriptor cast to a pointer; failure gives
 * QX_INVALID_FILE. Access: QX_GENERIC_READ and/or QX_GENERIC_WRITE.
 * Dispositions follow Win32: 1 create new (fails when the file exists),
 * 2 create always (truncates), 3 open existing, 4 open always, 5 truncate
 * existing. New files get mode 0666 less the umask. The share word, security
 * pointer, flags and template are accepted and ignored (POSIX has no share
 * modes).
 *
 * qxOSGetLastError returns the errno value of the calling thread's most recent
 * failed qxOS file operation (0 when none failed yet); it is a POSIX errno
 * code, not a Win32 code (ENOENT 2, EACCES 13, EEXIST 17, ...).
 */
typedef void* QXFILE;
#define QX_INVALID_FILE ((QXFILE)(intptr_t)-1)
#define QX_GENERIC_READ 0x80000000u
#define QX_GENERIC_WRITE 0x40000000u
#define QX_CREATE_NEW 1u
#define QX_CREATE_ALWAYS 2u
#define QX_OPEN_EXISTING 3u
#define QX_OPEN_ALWAYS 4u
#define QX_TRUNCATE_EXISTING 5u

/* Buffer sizes that qxOSSplitPath fills and qxOSMakePath writes; outputs are
   truncated (and always terminated) to fit. */
#define QX_MAX_PATH 4096
#define QX_MAX_DRIVE 3
#define QX_MAX_DIR 4096
#define QX_MAX_FNAME 256
#define QX_MAX_EXT 256

QNV_API uint32_t qxOSFileExists(const char* path);
QNV_API QXFILE qxOSCreateFile(const char* path, uint32_t access, uint32_t share, void* security,
                              uint32_t disposition, uint32_t flags, QXFILE templateFile);
/* Reads until `count` bytes or end of file; non-zero on success (also when
   fewer bytes were read at end of file). `overlapped` must be null. */
QNV_API uint32_t qxOSReadFile(QXFILE file, void* buffer, uint32_t count, uint32_t* bytesRead,
                              void* overlapped);
QNV_API uint32_t qxOSWriteFile(QXFILE file, const void* buffer, uint32_t count, uint32_t* bytesWritten,
                               void* overlapped);
/* Moves to an absolute offset; returns the resulting position, -1 on failure. */
QNV_API int64_t qxOSSeek(QXFILE file, int64_t offset);
/* Low 32 bits of the size (high 32 bits through `high` when not null);
   0xFFFFFFFF on failure. */
QNV_API uint32_t qxOSGetFileSize(QXFILE file, uint32_t* high);
/* Non-zero on success. */
QNV_API uint32_t qxOSGetFileSizeEx(QXFILE file, int64_t* size);
QNV_API void qxOSCloseFile(QXFILE file);
QNV_API uint32_t qxOSGetLastError(void);
/* Monotonic millisecond tick, wrapping at 2^32. */
QNV_API uint32_t qxOSGetMs(void);
/* Splits "dir/name.ext": drive is always empty on Linux, dir keeps its
   trailing '/', ext keeps its '.'. Null outputs are skipped. */
QNV_API void qxOSSplitPath(const char* path, char* drive, char* dir, char* name, char* ext);
/* Joins the parts, adding '/' after dir and '.' before ext when missing.
   Null parts count as empty. */
QNV_API void qxOSMakePath(char* path, const char* drive, const char* dir, const char* name,
                          const char* ext);

/* ---- Text encodings ------------------------------------------------------- */

/* Standard base64 (RFC 4648 alphabet, '=' padding) of `length` bytes. A line
   break ("\n") follows every 72 output characters unless the output ends
   there; the output is terminated with a NUL, and *outLength (when not null)
   receives the characters written without the NUL. Size the output as
   m = length * 4 / 3 + 4, plus m / 72 + 17. */
QNV_API void base64_encode(const uint8_t* source, uint32_t length, uint32_t* outLength, char* out);

QNV_END_C

#endif
