// Control messages (head unit to phone) and device messages (phone to head unit) on the control
// connection, serialised big-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

enum ControlMessageType : uint32_t {
    CONTROL_KEYCODE = 0,
    CONTROL_TEXT = 1,
    CONTROL_TOUCH = 2,
    CONTROL_SCROLL = 3,
    CONTROL_COMMAND_4 = 4,
    CONTROL_COMMAND_5 = 5,
    CONTROL_COMMAND_6 = 6,
    CONTROL_COMMAND_7 = 7,
    CONTROL_CLIPBOARD = 8,
    CONTROL_SET_MODE = 9,
};

constexpr size_t CONTROL_MESSAGE_MAX_SIZE = 4096;
constexpr size_t CONTROL_TEXT_MAX = 300;
constexpr size_t CONTROL_CLIPBOARD_MAX = 4093;

struct Position {
    uint32_t screen_width; // only the low 16 bits go on the wire
    uint32_t screen_height;
    int32_t x;
    int32_t y;
};

struct ControlMessage {
    ControlMessageType type;
    union {
        struct {
            uint8_t action;
            uint32_t keycode;
            uint32_t metastate;
        } keycode;
        struct {
            char* text; // owned, UTF-8, zero-terminated
        } text;
        struct {
            uint8_t action;
            uint32_t pointer_id;
            Position position;
        } touch;
        struct {
            Position position;
            int32_t hscroll;
            int32_t vscroll;
        } scroll;
        struct {
            char* text; // owned
        } clipboard;
        struct {
            uint8_t mode;
        } set_mode;
    };
};

enum DeviceMessageType : uint32_t {
    DEVICE_CLIPBOARD = 0,
    DEVICE_NOTIFY = 1,
};

struct DeviceMessage {
    uint32_t type;
    char* text; // owned; only for DEVICE_CLIPBOARD
};

void position_write(uint8_t* out, const Position* position);
size_t utf8_cut_index(const char* text, size_t max);
size_t control_message_serialize(const ControlMessage* msg, uint8_t* buf);
void control_message_destroy(ControlMessage* msg);
ssize_t device_message_parse(const uint8_t* buf, size_t len, DeviceMessage* msg);
void device_message_destroy(DeviceMessage* msg);
