// The phone simulator's side of the wire: what a phone-side server sends (device information,
// video packet headers, device messages) and its own reading of the head unit's control messages.
// Written from the wire tables alone; it shares no code with the daemon, so the two can check
// each other against the shared vectors.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace sim {

constexpr size_t kDeviceInfoSize = 68;
constexpr size_t kPacketHeaderSize = 12;
constexpr uint64_t kRotationPts = ~uint64_t(0);

// 64-byte zero-padded name (at most 63 characters kept) then width and height, big-endian.
std::vector<uint8_t> encode_device_info(const std::string& name, uint16_t width, uint16_t height);
// PTS (u64) and payload length (u32), big-endian.
void encode_packet_header(uint8_t out[kPacketHeaderSize], uint64_t pts, uint32_t length);

// Device messages the phone sends on the control connection.
std::vector<uint8_t> encode_clipboard(const std::string& text);
// The notify message is the type byte alone on the wire; two zero bytes follow it because the
// head unit looks at nothing shorter than three bytes.
std::vector<uint8_t> encode_notify();

struct ControlRecord {
    int type = -1; // wire type byte
    int action = 0;
    uint32_t keycode = 0;
    uint32_t metastate = 0;
    uint32_t pointer_id = 0;
    int32_t x = 0;
    int32_t y = 0;
    uint16_t width = 0;
    uint16_t height = 0;
    int32_t hscroll = 0;
    int32_t vscroll = 0;
    int mode = 0;
    std::string text;
};

// Decodes one control message from the front of buf: bytes consumed, 0 when more bytes are
// needed, -1 for a type byte outside the table (the stream cannot be followed after it).
long decode_control(const uint8_t* buf, size_t len, ControlRecord* out);
// One JSON object, keys in a fixed order per type; extra ("\"t_ns\":123") is appended when given.
std::string control_to_json(const ControlRecord& rec, const std::string& extra = std::string());
std::string json_escape(const std::string& s);

// Splits an Annex-B byte stream into access units (start codes kept). A unit begins at an access
// unit delimiter, at parameter sets / SEI following a picture, or at a slice whose first macroblock
// is 0 following a picture.
std::vector<std::vector<uint8_t>> split_access_units(const std::vector<uint8_t>& stream);

// Scripted behaviour, from PHONE_SIM_EVENTS, e.g. "rotate@30,clipboard:hi@5,eos@100".
enum class EventKind {
    Rotate,       // the frame is sent with the rotation PTS
    Eos,          // length 0, then idle with the connection open
    Close,        // close both connections and exit
    Reset,        // abortive close (RST) of both connections and exit
    Stall,        // stop sending, keep the connections open
    Oversize,     // a header announcing more than 1 MiB, then idle
    Garbage,      // random bytes, then idle
    CloseControl, // close the control connection, keep streaming
    Clipboard,    // clipboard device message with text
    Notify,       // notify device message
    Idle,         // send nothing for text seconds (a still screen), then go on
};

struct Event {
    EventKind kind;
    unsigned frame;
    std::string text;
};

struct Script {
    std::vector<Event> events;
    bool short_info = false;
    long frames = -1; // stop after this many frames (connection stays open), -1 for no limit
    // How a misbehaving server starts: "" (normally), "exit-at-launch", "never-connect", "video-only"
    // (no control connection), "no-hello" (forward mode: the first byte never comes).
    std::string launch;
    long info_bytes = -1;        // send only this much of the device information, then stay silent
    bool ignore_control = false; // never read the control connection (its buffers fill up)
};

// False with *error set when the text has an unknown or malformed item.
bool parse_script(const std::string& text, Script* script, std::string* error);

} // namespace sim
