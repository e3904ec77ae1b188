// Guard bytes around a fuzzed buffer: poisoned under AddressSanitizer, so
// that a read or write past the buffer stops the run at once; plain bytes,
// compared afterwards, elsewhere.
#ifndef QNVUTIL_FUZZ_FUZZ_GUARD_H
#define QNVUTIL_FUZZ_FUZZ_GUARD_H

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#include <sanitizer/asan_interface.h>
#define GUARD_POISON(p, n) ASAN_POISON_MEMORY_REGION(p, n)
#define GUARD_UNPOISON(p, n) ASAN_UNPOISON_MEMORY_REGION(p, n)
#endif
#endif
#ifndef GUARD_POISON
#define GUARD_POISON(p, n) ((void)(p), (void)(n))
#define GUARD_UNPOISON(p, n) ((void)(p), (void)(n))
#endif

#endif
