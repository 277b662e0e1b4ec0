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

    // A read cut short by the close counts as complete: the record is what arrived, then zeros.
    uint8_t record[DEVICE_INFO_SIZE] = {};
    memcpy(record, data, size < sizeof record ? size : sizeof record);
    const size_t len = strnlen(reinterpret_cast<const char*>(record), DEVICE_NAME_FIELD - 1);
    if (size == 0)
        check(!ok && picture[0] == 1280 && picture[1] == 720 &&
              std::string(name, 128) == std::string(128, 0x5A));
    else
        check(ok && memcmp(name, record, len) == 0 && name[len] == '\0' &&
              picture[0] == (record[64] << 8 | record[65]) && picture[1] == (record[66] << 8 | record[67]));
    // Nothing past the record was consumed: the first video packet is still on the socket.
    std::string rest;
    char chunk[512];
    for (ssize_t n; (n = recv(phone.fds[0], chunk, sizeof chunk, 0)) > 0;)
        rest.append(chunk, size_t(n));
    const char* past = reinterpret_cast<const char*>(data) + DEVICE_INFO_SIZE;
    check(rest == (size > DEVICE_INFO_SIZE ? std::string(past, size - DEVICE_INFO_SIZE) : ""));
    return 0;
}
