#include "securec.h"

#include <cstdint>
#include <cstring>

namespace {

bool Overlaps(const void* a, size_t aLen, const void* b, size_t bLen)
{
    uintptr_t x = reinterpret_cast<uintptr_t>(a);
    uintptr_t y = reinterpret_cast<uintptr_t>(b);
    return (x < y + bLen) && (y < x + aLen);
}

} // namespace

extern "C" errno_t memcpy_s(void* dest, size_t destMax, const void* src, size_t count)
{
    if (destMax == 0 || destMax > SECUREC_MEM_MAX_LEN) {
        return SECUREC_ERANGE;
    }
    if (dest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (src == nullptr) {
        memset(dest, 0, destMax);
        return SECUREC_EINVAL_AND_RESET;
    }
    if (count > destMax) {
        memset(dest, 0, destMax);
        return SECUREC_ERANGE_AND_RESET;
    }
    if (count == 0 || dest == src) {
        return EOK;
    }
    if (Overlaps(dest, count, src, count)) {
        memset(dest, 0, destMax);
        return SECUREC_EOVERLAP_AND_RESET;
    }
    memcpy(dest, src, count);
    return EOK;
}

extern "C" errno_t memset_s(void* dest, size_t destMax, int c, size_t count)
{
    if (destMax == 0 || destMax > SECUREC_MEM_MAX_LEN) {
        return SECUREC_ERANGE;
    }
    if (dest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (count > destMax) {
        memset(dest, c, destMax);
        return SECUREC_ERANGE_AND_RESET;
    }
    memset(dest, c, count);
    return EOK;
}

extern "C" errno_t strncpy_s(char* strDest, size_t destMax, const char* strSrc, size_t count)
{
    if (destMax == 0 || destMax > SECUREC_STRING_MAX_LEN) {
        return SECUREC_ERANGE;
    }
    if (strDest == nullptr) {
        return SECUREC_EINVAL;
    }
    if (strSrc == nullptr || count > SECUREC_STRING_MAX_LEN) {
        strDest[0] = '\0';
        return strSrc == nullptr ? SECUREC_EINVAL_AND_RESET : SECUREC_ERANGE_AND_RESET;
    }
    size_t length = strnlen(strSrc, count);
    if (length >= destMax) {
        strDest[0] = '\0';
        return SECUREC_ERANGE_AND_RESET;
    }
    if (strDest != strSrc && Overlaps(strDest, length + 1, strSrc, length + 1)) {
        strDest[0] = '\0';
        return SECUREC_EOVERLAP_AND_RESET;
    }
    memmove(strDest, strSrc, length);
    strDest[length] = '\0';
    return EOK;
}

extern "C" errno_t strcpy_s(char* strDest, size_t destMax, const char* strSrc)
{
    if (strSrc == nullptr) {
        return strncpy_s(strDest, destMax, strSrc, 0);
    }
    return strncpy_s(strDest, destMax, strSrc, strlen(strSrc));
}
