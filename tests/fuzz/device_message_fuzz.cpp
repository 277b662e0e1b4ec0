// Device messages as the phone sends them, parsed the way the receiver walks a read: message by
// message until the parser wants more bytes or gives up.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "control/control_message.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    // The parser reports unknown types on standard output; keep the fuzzer's console readable.
    if (freopen("/dev/null", "w", stdout) == nullptr)
        abort();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DeviceMessage msg;
    msg.type = 0;
    msg.text = nullptr;
    size_t consumed = 0;
    while (consumed < size) {
        const size_t left = size - consumed;
        const ssize_t n = device_message_parse(data + consumed, left, &msg);
        if (n <= 0) {
            // Nothing consumed means nothing allocated.
            if (msg.text != nullptr)
                abort();
            break;
        }
        if (static_cast<size_t>(n) > left || msg.type != DEVICE_CLIPBOARD || msg.text == nullptr)
            abort();
        // The text is exactly the announced bytes, terminated.
        const size_t len = static_cast<size_t>(n) - 3;
        if (memcmp(msg.text, data + consumed + 3, len) != 0 || msg.text[len] != '\0')
            abort();
        consumed += static_cast<size_t>(n);
        device_message_destroy(&msg);
    }
    return 0;
}
