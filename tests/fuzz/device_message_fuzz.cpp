// Device messages as the phone sends them, parsed the way the receiver walks a read: message by
// message until the parser wants more bytes or gives up.
#include <cstring>

#include "control/control_message.h"
#include "fuzz_support.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    fuzz_setup();
    DeviceMessage msg{0, nullptr};
    for (size_t consumed = 0, n = 0; consumed < size; consumed += n) {
        const ssize_t parsed = device_message_parse(data + consumed, size - consumed, &msg);
        check(parsed > 0 || msg.text == nullptr); // nothing consumed, nothing allocated
        if (parsed <= 0)
            break;
        // A clipboard whose text is exactly the announced bytes, terminated.
        n = size_t(parsed);
        check(n <= size - consumed && msg.type == DEVICE_CLIPBOARD && msg.text != nullptr &&
              memcmp(msg.text, data + consumed + 3, n - 3) == 0 && msg.text[n - 3] == '\0');
        device_message_destroy(&msg);
    }
    return 0;
}
