#include "control/control_message.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

void write16be(uint8_t* out, uint16_t value)
{
    out[0] = static_cast<uint8_t>(value >> 8);
    out[1] = static_cast<uint8_t>(value);
}

void write32be(uint8_t* out, uint32_t value)
{
    out[0] = static_cast<uint8_t>(value >> 24);
    out[1] = static_cast<uint8_t>(value >> 16);
    out[2] = static_cast<uint8_t>(value >> 8);
    out[3] = static_cast<uint8_t>(value);
}

// Length prefix and bytes of a text message, cut to what the phone accepts.
size_t write_text(uint8_t* buf, const char* text, size_t limit)
{
    // A message built without a text goes out as an empty one rather than reading through null.
    const size_t n = text != nullptr ? utf8_cut_index(text, limit) : 0;
    write16be(buf + 1, static_cast<uint16_t>(n));
    if (n > 0)
        memcpy(buf + 3, text, n);
    return 3 + n;
}

} // namespace

void position_write(uint8_t* out, const Position* position)
{
    // The point goes first on the wire, then the size of the picture it was measured in.
    write32be(out, static_cast<uint32_t>(position->x));
    write32be(out + 4, static_cast<uint32_t>(position->y));
    write16be(out + 8, static_cast<uint16_t>(position->screen_width));
    write16be(out + 10, static_cast<uint16_t>(position->screen_height));
}

size_t utf8_cut_index(const char* text, size_t max)
{
    const size_t len = strlen(text);
    if (len <= max)
        return len;
    // Step back over continuation bytes so that a multi-byte character is never split; a text
    // made of nothing but continuation bytes is cut to nothing.
    size_t i = max;
    while (i > 0 && (static_cast<uint8_t>(text[i]) & 0xC0) == 0x80)
        i--;
    return i;
}

size_t control_message_serialize(const ControlMessage* msg, uint8_t* buf)
{
    buf[0] = static_cast<uint8_t>(msg->type);
    switch (msg->type) {
    case CONTROL_KEYCODE:
        buf[1] = msg->keycode.action;
        write32be(buf + 2, msg->keycode.keycode);
        write32be(buf + 6, msg->keycode.metastate);
        return 10;
    case CONTROL_TEXT:
        return write_text(buf, msg->text.text, CONTROL_TEXT_MAX);
    case CONTROL_TOUCH:
        buf[1] = msg->touch.action;
        write32be(buf + 2, msg->touch.pointer_id);
        position_write(buf + 6, &msg->touch.position);
        return 18;
    case CONTROL_SCROLL:
        position_write(buf + 1, &msg->scroll.position);
        write32be(buf + 13, static_cast<uint32_t>(msg->scroll.hscroll));
        write32be(buf + 17, static_cast<uint32_t>(msg->scroll.vscroll));
        return 21;
    case CONTROL_COMMAND_4:
    case CONTROL_COMMAND_5:
    case CONTROL_COMMAND_6:
    case CONTROL_COMMAND_7:
        return 1;
    case CONTROL_CLIPBOARD:
        return write_text(buf, msg->clipboard.text, CONTROL_CLIPBOARD_MAX);
    case CONTROL_SET_MODE:
        buf[1] = msg->set_mode.mode;
        return 2;
    }
    printf("Unknown message type: %u\n", static_cast<unsigned>(msg->type));
    return 0;
}

void control_message_destroy(ControlMessage* msg)
{
    if (msg->type == CONTROL_TEXT) {
        free(msg->text.text);
        msg->text.text = nullptr;
    } else if (msg->type == CONTROL_CLIPBOARD) {
        free(msg->clipboard.text);
        msg->clipboard.text = nullptr;
    }
}

ssize_t device_message_parse(const uint8_t* buf, size_t len, DeviceMessage* msg)
{
    // Too short to say anything: the record keeps the previous message's type, which the
    // receiver acts on.
    if (len < 3)
        return 0;
    msg->type = buf[0];
    if (msg->type == DEVICE_CLIPBOARD) {
        const size_t n = static_cast<size_t>(buf[1]) << 8 | buf[2];
        if (n > len - 3)
            return 0;
        char* text = static_cast<char*>(malloc(n + 1));
        if (text == nullptr) {
            puts("Could not allocate text for clipboard");
            return -1;
        }
        memcpy(text, buf + 3, n);
        text[n] = '\0';
        msg->text = text;
        return static_cast<ssize_t>(n + 3);
    }
    // Notify and the two reserved types carry nothing: the receiver acts on the type alone and
    // the bytes are not consumed.
    if (msg->type <= 3)
        return 0;
    printf("Unknown device message type: %d\n", static_cast<int>(msg->type));
    return -1;
}

void device_message_destroy(DeviceMessage* msg)
{
    if (msg->type == DEVICE_CLIPBOARD) {
        free(msg->text);
        msg->text = nullptr;
    }
}
