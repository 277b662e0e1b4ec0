// Environment switches of the host backend. They are read at each use, not cached, so a test can
// change them between cases in one process.
#include "platform/host/host_platform.h"

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace orvane_host {

namespace {

// Finds `name` as an entry of the comma list, either alone or as "name:value"; returns the value
// text (empty for a bare entry) through `value`.
bool find_fault(const char* name, std::string* value)
{
    const char* list = std::getenv("ORVANE_HOST_FAULTS");
    if (!list)
        return false;
    const size_t name_len = std::strlen(name);
    const char* p = list;
    while (*p) {
        while (*p == ',' || *p == ' ')
            ++p;
        const char* end = p;
        while (*end && *end != ',')
            ++end;
        const char* trimmed = end;
        while (trimmed > p && trimmed[-1] == ' ')
            --trimmed;
        const size_t len = static_cast<size_t>(trimmed - p);
        if (len >= name_len && std::strncmp(p, name, name_len) == 0 &&
            (len == name_len || p[name_len] == ':')) {
            value->assign(len == name_len ? p + len : p + name_len + 1, trimmed);
            return true;
        }
        p = end;
    }
    return false;
}

} // namespace

bool fault_active(const char* name)
{
    std::string value;
    return find_fault(name, &value);
}

long fault_number(const char* name, long bare)
{
    std::string value;
    if (!find_fault(name, &value))
        return -1;
    if (value.empty())
        return bare;
    char* end = nullptr;
    errno = 0;
    long n = std::strtol(value.c_str(), &end, 10);
    if (errno != 0 || *end != '\0' || n < 0) {
        printf("ORVANE_HOST_FAULTS: bad count in %s:%s, taken as always\n", name, value.c_str());
        return bare;
    }
    return n;
}

std::string env_string(const char* name, const char* fallback)
{
    const char* v = std::getenv(name);
    return v && *v ? std::string(v) : std::string(fallback ? fallback : "");
}

void fb_resolution(int* width, int* height)
{
    *width = 1024;
    *height = 600;
    const char* v = std::getenv("ORVANE_HOST_FB");
    if (!v || !*v)
        return;
    // Digits only, range-checked before any narrowing: 4294967312x16 must not pass as 16x16.
    const auto dimension = [](const char* text, char end, const char** next) -> long {
        char* stop = nullptr;
        errno = 0;
        const unsigned long n =
            std::isdigit(static_cast<unsigned char>(*text)) ? std::strtoul(text, &stop, 10) : 0;
        if (stop == nullptr || errno != 0 || *stop != end || n < 16 || n > 8192)
            return -1;
        *next = stop + 1;
        return static_cast<long>(n);
    };
    const char* rest = v;
    const long w = dimension(rest, 'x', &rest);
    const long h = w < 0 ? -1 : dimension(rest, '\0', &rest);
    if (w > 0 && h > 0) {
        *width = static_cast<int>(w);
        *height = static_cast<int>(h);
        return;
    }
    printf("ORVANE_HOST_FB=%s is not WIDTHxHEIGHT (16..8192), using 1024x600\n", v);
}

} // namespace orvane_host
