// Device messages as the phone sends them, parsed the way the receiver walks a read: message by
// message until the parser wants more bytes or gives up.
#include <cstring>

#include "control/control_message.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    fuzz_quiet();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    DeviceMessage msg{0, nullptr};
    for (size_t consumed = 0; consumed < size;) {
        const ssize_t n = device_message_parse(data + consumed, size - consumed, &msg);
        if (n <= 0) {
            if (msg.text != nullptr) // nothing consumed, nothing allocated
                abort();
            break;
        }
        if (size_t(n) > size - consumed || msg.type != DEVICE_CLIPBOARD || msg.text == nullptr)
            abort();
        // The text is exactly the announced bytes, terminated.
        const size_t len = size_t(n) - 3;
        if (memcmp(msg.text, data + consumed + 3, len) != 0 || msg.text[len] != '\0')
            abort();
        consumed += size_t(n);
        device_message_destroy(&msg);
    }
    return 0;
}
