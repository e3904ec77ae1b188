/*
 * Storage helpers: a read-ahead cache in front of an open file, and a project
 * document that keeps a clip file, an EDL file and named settings in one XML
 * file. C++ only.
 */
#ifndef QNVUTIL_STORAGE_H
#define QNVUTIL_STORAGE_H

#include <stdint.h>

#include "qnvutil/export.h"
#include "qnvutil/qxutil.h"

#ifdef __cplusplus

namespace tinyxml2 {
class XMLDocument;
class XMLElement;
}  // namespace tinyxml2

/* Read flag of CQxDiskCache::Read: a refill near the end of the file asks
   only for the bytes up to the end (only bit 2 of bits 1-2 set). */
#define QX_DISKCACHE_TO_END_OF_FILE 4u

/*
 * A single read-ahead cache in front of a file handle that the caller opened
 * and keeps (the cache never opens or closes it). Meant for reading a media
 * file forward in many small pieces.
 *
 * Read(destination, position, size, &bytesRead, flags):
 *  - a request larger than cacheSize - 4096 (or any request while there is no
 *    cache) seeks and reads straight into the destination; the result is 0,
 *    or the host's last error code when the read fails;
 *  - a request that ends before the end of the cached bytes is copied from
 *    the cache; one that reaches the end (position + size = end included)
 *    takes what the cache holds and refills for the rest;
 *  - a refill reads cacheSize bytes from the continuing position rounded down
 *    to a multiple of 4096 (with QX_DISKCACHE_TO_END_OF_FILE only up to the
 *    end of the file, or the request's size when the request passes the end).
 *    When the refill brings fewer bytes than the rest of the request needs,
 *    the read fails, or with retryShortReads it is retried every 2 ms until
 *    1500 ms have passed, for files that are still being written.
 *  - results: 0, or an error code with bit 31 set (the seek for a refill
 *    failed, logged as "Diskcache seek failed 0x%08X ", or a refill read
 *    failed); a refill that ends short at the end of the file returns 0 with
 *    bytesRead counting only the bytes copied from the cache before it.
 *  - The refill compares the bytes it read, counted from its 4096-byte
 *    boundary, with the bytes the request still needs, counted from the
 *    continuing position: a request that passes the end of the file by less
 *    than that distance succeeds, and its bytes beyond the end are zero.
 *  - A cache without a handle (a new object, or QX_INVALID_FILE given) reads
 *    nothing: the result is EBADF.
 *
 * Copies are shallow by design: the copy constructor and operator= copy
 * every field, the buffer pointer included, without allocating. The copy and
 * its source then share one buffer and both destructors free it, so a copy
 * must not outlive its source nor be destroyed along with it; do not copy a
 * cache that is in use.
 *
 * One object serves one thread at a time; a retried read blocks for up to
 * 1.5 s.
 */
class QNV_EXPORT CQxDiskCache {
public:
    CQxDiskCache();
    virtual ~CQxDiskCache();
    CQxDiskCache(const CQxDiskCache& other);
    CQxDiskCache& operator=(const CQxDiskCache& other);

    /* Takes the handle and allocates a cache of cacheSize bytes (emptied);
       0, or 0xFFFFFFFF when the buffer cannot be allocated (then every Read
       goes straight to the file). */
    uint32_t SetHandleAndCacheSize(QXFILE handle, uint32_t cacheSize, bool retryShortReads);
    /* See above. */
    uint32_t Read(uint8_t* destination, uint64_t position, uint32_t size, uint32_t* bytesRead, uint32_t flags);

protected:
    QXFILE handle;         /* the caller's open file */
    uint8_t* rawBuffer;    /* QxAlloc block of cacheSize + 2048 bytes, owned */
    uint8_t* cacheData;    /* rawBuffer rounded up to a multiple of 1024 */
    uint32_t cacheSize;    /* capacity in bytes */
    uint64_t cachedStart;  /* file position of cacheData[0], a multiple of 4096 */
    uint64_t cachedEnd;    /* file position one past the last valid cached byte */
    bool retryShortReads;  /* retry short refills for up to 1500 ms */
};

/* Size of the name buffers of CQxProjectToXML, terminator included; the
   getters need destinations of this size. */
#define QX_PROJECT_NAME_SIZE 260

/*
 * A project document in XML: the name of one clip file and one EDL file, each
 * with the file's whole text embedded, and a set of named settings. Written
 * by SaveXMLFile as an XML declaration followed by three top-level elements:
 *
 *   <?xml version="1.0"?>
 *   <ClipList FileName="..." Data="...the clip file's text..."/>
 *   <EdlList EdlName="..." Data="...the EDL file's text..."/>
 *   <Settings name="value" .../>
 *
 * Attribute text escapes & < > " and writes tabs and line breaks as
 * character references, so that any XML parser reads them back exactly (a
 * parser turns raw ones into spaces); UTF-8 characters stand as they are, and
 * every other byte above 127 is written as the reference of the ISO 8859-1
 * character of that value. LoadXMLFile turns all of it back into the
 * original bytes. Other control characters are written as references too and
 * also come back through LoadXMLFile, but XML 1.0 has no way to carry them:
 * a file whose texts hold them is read by this class only. Texts end at
 * their first NUL byte.
 *
 * LoadXMLFile recreates a missing clip or EDL file next to the XML file from
 * the embedded text, so a project can move to another folder or machine.
 *
 * Names (XML path, clip file, EDL name) keep at most 259 characters; longer
 * ones are cut. Setting names must be XML names.
 *
 * operator= copies shallowly: the document is then shared and both objects
 * delete it, so do not copy an object that is in use (the copy constructor
 * is not available).
 */
class QNV_EXPORT CQxProjectToXML {
public:
    CQxProjectToXML();
    ~CQxProjectToXML();
    CQxProjectToXML(const CQxProjectToXML&) = delete;
    CQxProjectToXML& operator=(const CQxProjectToXML& other);

    /* The XML file that SaveXMLFile writes. All members return 0 unless said
       otherwise. */
    uint32_t SetXMLName(const char* name);
    uint32_t GetXMLName(char* destination) const;
    /* Names the clip file and embeds its whole text (when it can be read and
       is not empty; otherwise the embedded text stays as it was). */
    uint32_t SetClipFile(const char* path);
    uint32_t GetClipFile(char* destination) const;
    /* As SetClipFile, for the EDL file. */
    uint32_t SetEDLName(const char* path);
    uint32_t GetEDLName(char* destination) const;
    /* Settings, kept as decimal text. GetConfigDWORD gives 0 for a missing
       setting; text that is not a number reads as its leading number. */
    uint32_t SetConfigDWORD(const char* name, uint32_t value);
    uint32_t GetConfigDWORD(const char* name) const;
    uint32_t SetConfigString(const char* name, const char* value);
    /* Copies at most 259 characters and a terminator; leaves the destination
       untouched when the setting is missing. */
    uint32_t GetConfigString(const char* name, char* destination) const;
    /* Loads the document and recreates a missing clip or EDL file next to the
       XML file (a clip file only when it has embedded text). 1 when the file
       loaded, else 0. */
    uint32_t LoadXMLFile(const char* path);
    /* Writes the document to the XML file; 1 when saved, else 0. */
    uint32_t SaveXMLFile();

protected:
    char xmlName[QX_PROJECT_NAME_SIZE];
    char clipFile[QX_PROJECT_NAME_SIZE];
    char edlName[QX_PROJECT_NAME_SIZE];
    tinyxml2::XMLDocument* document;  /* owned */
    tinyxml2::XMLElement* clipList;   /* "ClipList" */
    tinyxml2::XMLElement* edlList;    /* "EdlList" */
    tinyxml2::XMLElement* settings;   /* "Settings" */
};

#endif /* __cplusplus */

#endif
