#ifndef STAVIK_PLATFORM_SECUREC_H
#define STAVIK_PLATFORM_SECUREC_H

#include <stddef.h>

// Bounds-checked memory and string operations with their published signatures
// and error codes. On failure the destination is reset where the code says so.
#ifndef EOK
#define EOK 0
#endif
#define SECUREC_EINVAL 22
#define SECUREC_ERANGE 34
#define SECUREC_EINVAL_AND_RESET (22 | 128)
#define SECUREC_ERANGE_AND_RESET (34 | 128)
#define SECUREC_EOVERLAP_AND_RESET (54 | 128)
#define SECUREC_MEM_MAX_LEN 0x7fffffffUL
#define SECUREC_STRING_MAX_LEN 0x7fffffffUL

typedef int errno_t;

#ifdef __cplusplus
extern "C" {
#endif

errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count);
errno_t memset_s(void* dest, size_t destMax, int c, size_t count);
errno_t strcpy_s(char* strDest, size_t destMax, const char* strSrc);
errno_t strncpy_s(char* strDest, size_t destMax, const char* strSrc, size_t count);

#ifdef __cplusplus
}
#endif

#endif
