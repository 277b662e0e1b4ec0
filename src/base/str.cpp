#include "base/str.h"

#include <cstdlib>
#include <cstring>

size_t str_copy_limited(char* dst, const char* src, size_t n)
{
    size_t i = 0;
    while (i < n - 1 && src[i] != '\0') {
        dst[i] = src[i];
        ++i;
    }
    dst[i] = '\0';
    return src[i] == '\0' ? i : n;
}

size_t str_join(char* dst, const char* const* tokens, char sep, size_t n)
{
    size_t len = 0;
    for (const char* const* token = tokens; *token != nullptr; ++token) {
        // No separator after an empty text so far.
        if (len != 0) {
            if (len + 1 >= n) {
                dst[n - 1] = '\0';
                return n;
            }
            dst[len++] = sep;
        }
        const size_t copied = str_copy_limited(&dst[len], *token, n - len);
        if (copied == n - len)
            return n;
        len += copied;
    }
    return len;
}

char* str_quote(const char* s)
{
    const size_t len = strlen(s);
    char* quoted = static_cast<char*>(malloc(len + 3));
    if (quoted == nullptr)
        return nullptr;
    quoted[0] = '"';
    memcpy(&quoted[1], s, len);
    quoted[len + 1] = '"';
    quoted[len + 2] = '\0';
    return quoted;
}
