// The 68-byte device information record read from a real socket pair: the input is everything
// the phone wrote before it closed its end.
#include <cstring>

#include "fuzz_support.h"
#include "video/device_info.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_setup();
    Phone phone(SOCK_STREAM, {{data, size}});
    // The service's presets, which a failed read must leave as they are.
    char name[128];
    memset(name, 0x5A, sizeof name);
    int picture[2] = {1280, 720};
    const bool ok = device_read_info(phone.fds[0], name, picture);

    // Only a whole record is taken; anything shorter leaves the presets as they were.
    const size_t len = strnlen(reinterpret_cast<const char*>(data), size < 63 ? size : 63);
    if (size < DEVICE_INFO_SIZE)
        check(!ok && picture[0] == 1280 && picture[1] == 720 &&
              std::string(name, 128) == std::string(128, 0x5A));
    else
        check(ok && memcmp(name, data, len) == 0 && name[len] == '\0' &&
              picture[0] == (data[64] << 8 | data[65]) && picture[1] == (data[66] << 8 | data[67]));
    // Nothing past the record was consumed: the first video packet is still on the socket.
    std::string rest;
    char chunk[512];
    for (ssize_t n; (n = recv(phone.fds[0], chunk, sizeof chunk, 0)) > 0;)
        rest.append(chunk, size_t(n));
    const char* past = reinterpret_cast<const char*>(data) + DEVICE_INFO_SIZE;
    check(rest == (size > DEVICE_INFO_SIZE ? std::string(past, size - DEVICE_INFO_SIZE) : ""));
    return 0;
}
