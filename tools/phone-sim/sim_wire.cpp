#include "sim_wire.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace sim {

namespace {

uint32_t be32(const uint8_t* p)
{
    return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | p[3];
}

uint16_t be16(const uint8_t* p)
{
    return uint16_t(p[0] << 8 | p[1]);
}

void put_be16(uint8_t* p, uint16_t v)
{
    p[0] = uint8_t(v >> 8);
    p[1] = uint8_t(v);
}

// Position on the wire: x, y (i32), then width, height (u16).
void read_position(const uint8_t* p, ControlRecord* out)
{
    out->x = int32_t(be32(p));
    out->y = int32_t(be32(p + 4));
    out->width = be16(p + 8);
    out->height = be16(p + 10);
}

} // namespace

std::vector<uint8_t> encode_device_info(const std::string& name, uint16_t width, uint16_t height)
{
    std::vector<uint8_t> out(kDeviceInfoSize, 0);
    const size_t n = name.size() < 63 ? name.size() : 63;
    for (size_t i = 0; i < n; ++i)
        out[i] = uint8_t(name[i]);
    put_be16(&out[64], width);
    put_be16(&out[66], height);
    return out;
}

void encode_packet_header(uint8_t out[kPacketHeaderSize], uint64_t pts, uint32_t length)
{
    for (int i = 0; i < 8; ++i)
        out[i] = uint8_t(pts >> (56 - 8 * i));
    for (int i = 0; i < 4; ++i)
        out[8 + i] = uint8_t(length >> (24 - 8 * i));
}

std::vector<uint8_t> encode_clipboard(const std::string& text)
{
    const size_t n = text.size() < 0xFFFF ? text.size() : 0xFFFF;
    std::vector<uint8_t> out(3 + n);
    out[0] = 0;
    put_be16(&out[1], uint16_t(n));
    for (size_t i = 0; i < n; ++i)
        out[3 + i] = uint8_t(text[i]);
    return out;
}

std::vector<uint8_t> encode_notify()
{
    return {1, 0, 0};
}

long decode_control(const uint8_t* buf, size_t len, ControlRecord* out)
{
    if (len < 1)
        return 0;
    const int type = buf[0];
    size_t need;
    switch (type) {
    case 0:
        need = 10;
        break;
    case 1:
    case 8:
        if (len < 3)
            return 0;
        need = 3 + size_t(be16(buf + 1));
        break;
    case 2:
        need = 18;
        break;
    case 3:
        need = 21;
        break;
    case 4:
    case 5:
    case 6:
    case 7:
        need = 1;
        break;
    case 9:
        need = 2;
        break;
    default:
        return -1;
    }
    if (len < need)
        return 0;

    *out = ControlRecord();
    out->type = type;
    switch (type) {
    case 0:
        out->action = buf[1];
        out->keycode = be32(buf + 2);
        out->metastate = be32(buf + 6);
        break;
    case 1:
    case 8:
        out->text.assign(reinterpret_cast<const char*>(buf + 3), need - 3);
        break;
    case 2:
        out->action = buf[1];
        out->pointer_id = be32(buf + 2);
        read_position(buf + 6, out);
        break;
    case 3:
        read_position(buf + 1, out);
        out->hscroll = int32_t(be32(buf + 13));
        out->vscroll = int32_t(be32(buf + 17));
        break;
    case 9:
        out->mode = buf[1];
        break;
    default:
        break;
    }
    return long(need);
}

std::string json_escape(const std::string& s)
{
    std::string out;
    for (unsigned char c : s) {
        if (c == '"' || c == '\\') {
            out += '\\';
            out += char(c);
        } else if (c < 0x20) {
            char esc[8];
            snprintf(esc, sizeof esc, "\\u%04x", c);
            out += esc;
        } else {
            out += char(c);
        }
    }
    return out;
}

std::string control_to_json(const ControlRecord& r, const std::string& extra)
{
    char b[256];
    std::string j;
    switch (r.type) {
    case 0:
        snprintf(b, sizeof b, "{\"type\":\"keycode\",\"action\":%d,\"keycode\":%u,\"metastate\":%u", r.action,
                 r.keycode, r.metastate);
        j = b;
        break;
    case 1:
    case 8:
        j = std::string("{\"type\":\"") + (r.type == 1 ? "text" : "clipboard") + "\",\"text\":\"" +
            json_escape(r.text) + "\"";
        break;
    case 2:
        snprintf(b, sizeof b,
                 "{\"type\":\"touch\",\"action\":%d,\"pointer_id\":%u,\"x\":%d,\"y\":%d,\"width\":%u,"
                 "\"height\":%u",
                 r.action, r.pointer_id, r.x, r.y, r.width, r.height);
        j = b;
        break;
    case 3:
        snprintf(b, sizeof b,
                 "{\"type\":\"scroll\",\"x\":%d,\"y\":%d,\"width\":%u,\"height\":%u,\"hscroll\":%d,"
                 "\"vscroll\":%d",
                 r.x, r.y, r.width, r.height, r.hscroll, r.vscroll);
        j = b;
        break;
    case 9:
        snprintf(b, sizeof b, "{\"type\":\"set_mode\",\"mode\":%d", r.mode);
        j = b;
        break;
    default:
        snprintf(b, sizeof b, "{\"type\":\"command\",\"command\":%d", r.type);
        j = b;
        break;
    }
    if (!extra.empty())
        j += "," + extra;
    return j + "}";
}

namespace {

// Start code positions with the NAL header offset; a 4-byte start code begins one byte earlier.
struct Nal {
    size_t start;  // first byte of the start code
    size_t header; // NAL header byte
};

std::vector<Nal> find_nals(const std::vector<uint8_t>& s)
{
    std::vector<Nal> nals;
    for (size_t i = 0; i + 3 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            nals.push_back({i > 0 && s[i - 1] == 0 ? i - 1 : i, i + 3});
            i += 2;
        }
    }
    return nals;
}

} // namespace

std::vector<std::vector<uint8_t>> split_access_units(const std::vector<uint8_t>& s)
{
    const std::vector<Nal> nals = find_nals(s);
    std::vector<size_t> starts;
    bool picture_seen = false; // the current unit already holds a slice
    for (const Nal& n : nals) {
        const int type = s[n.header] & 0x1f;
        const bool vcl = type >= 1 && type <= 5;
        bool begins = false;
        if (type == 9) {
            begins = true;
        } else if (type == 6 || type == 7 || type == 8 || (type >= 14 && type <= 18)) {
            begins = picture_seen;
        } else if (vcl && picture_seen && n.header + 1 < s.size()) {
            // first_mb_in_slice is ue(v): a leading 1 bit means 0, a new picture.
            begins = (s[n.header + 1] & 0x80) != 0;
        }
        if (begins || starts.empty()) {
            if (starts.empty() || starts.back() != n.start)
                starts.push_back(n.start);
            picture_seen = false;
        }
        if (vcl)
            picture_seen = true;
    }
    std::vector<std::vector<uint8_t>> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        const size_t end = k + 1 < starts.size() ? starts[k + 1] : s.size();
        units.emplace_back(s.begin() + long(starts[k]), s.begin() + long(end));
    }
    return units;
}

bool parse_script(const std::string& text, Script* script, std::string* error)
{
    *script = Script();
    size_t pos = 0;
    while (pos <= text.size()) {
        size_t comma = text.find(',', pos);
        if (comma == std::string::npos)
            comma = text.size();
        const std::string item = text.substr(pos, comma - pos);
        pos = comma + 1;
        if (item.empty())
            continue;
        if (item == "short-info") {
            script->short_info = true;
            continue;
        }
        if (item == "exit-at-launch" || item == "never-connect" || item == "video-only" ||
            item == "no-hello") {
            script->launch = item;
            continue;
        }
        if (item == "ignore-control") {
            script->ignore_control = true;
            continue;
        }
        for (const char* key : {"frames=", "info-bytes="}) {
            const size_t key_len = strlen(key);
            if (item.compare(0, key_len, key) != 0)
                continue;
            char* end = nullptr;
            const long n = strtol(item.c_str() + key_len, &end, 10);
            if (end == item.c_str() + key_len || *end != '\0' || n < 0 || (key[0] == 'i' && n > 68)) {
                *error = "bad count in '" + item + "'";
                return false;
            }
            (key[0] == 'f' ? script->frames : script->info_bytes) = n;
            break;
        }
        if (item.compare(0, 7, "frames=") == 0 || item.compare(0, 11, "info-bytes=") == 0)
            continue;
        const size_t at = item.rfind('@');
        if (at == std::string::npos) {
            *error = "missing @FRAME in '" + item + "'";
            return false;
        }
        char* end = nullptr;
        const std::string num = item.substr(at + 1);
        const long frame = strtol(num.c_str(), &end, 10);
        if (num.empty() || *end != '\0' || frame < 0) {
            *error = "bad frame number in '" + item + "'";
            return false;
        }
        Event ev{EventKind::Rotate, unsigned(frame), std::string()};
        const std::string name = item.substr(0, at);
        if (name == "rotate")
            ev.kind = EventKind::Rotate;
        else if (name == "eos")
            ev.kind = EventKind::Eos;
        else if (name == "close")
            ev.kind = EventKind::Close;
        else if (name == "reset")
            ev.kind = EventKind::Reset;
        else if (name == "stall")
            ev.kind = EventKind::Stall;
        else if (name == "oversize")
            ev.kind = EventKind::Oversize;
        else if (name == "garbage")
            ev.kind = EventKind::Garbage;
        else if (name == "close-control")
            ev.kind = EventKind::CloseControl;
        else if (name == "notify")
            ev.kind = EventKind::Notify;
        else if (name.compare(0, 10, "clipboard:") == 0) {
            ev.kind = EventKind::Clipboard;
            ev.text = name.substr(10);
        } else if (name.compare(0, 5, "idle:") == 0 && atoi(name.c_str() + 5) > 0) {
            ev.kind = EventKind::Idle;
            ev.text = name.substr(5);
        } else {
            *error = "unknown event '" + name + "'";
            return false;
        }
        script->events.push_back(ev);
    }
    return true;
}

} // namespace sim
