// Bounded string helpers for the plain C layers. Any thread; they keep no state.
#pragma once

#include <cstddef>

// Copies at most n - 1 bytes of src and terminates dst (n must not be 0). Returns the bytes copied
// when all of src fitted, n when it was cut.
size_t str_copy_limited(char* dst, const char* src, size_t n);
// Joins the null-terminated array of tokens into dst of size n with sep between them (none after an
// empty text so far). Returns the joined length, n when the result was cut (dst[n - 1] is then the
// terminator); an empty array returns 0 and leaves dst alone.
size_t str_join(char* dst, const char* const* tokens, char sep, size_t n);
// A new heap copy of s between double quotes (the caller frees it), or null without memory.
char* str_quote(const char* s);
