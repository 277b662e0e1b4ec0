// The bytes on the control and video connections: the daemon's serializer and parsers, and the
// phone simulator's decoder, each against the shared vectors; and the text limits.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "control/control_message.h"
#include "sim_wire.h"
#include "video/device_info.h"

namespace {

struct Vector {
    std::string name, json;
    std::vector<uint8_t> bytes;
};

// Rows of a vector file: case name, wire bytes in hex, fields as a flat JSON object.
std::vector<Vector> load(const std::string& file)
{
    std::vector<Vector> out;
    std::ifstream in(std::string(ORVANE_SOURCE_DIR) + "/tests/vectors/" + file);
    for (std::string line, hex; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::stringstream row(line);
        Vector v;
        std::getline(row, v.name, '\t');
        std::getline(row, hex, '\t');
        std::getline(row, v.json);
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            v.bytes.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
        out.push_back(v);
    }
    return out;
}

// A string's text or a number's digits.
std::string field(const std::string& json, const std::string& key)
{
    const size_t p = json.find("\"" + key + "\":") + key.size() + 3;
    if (json[p] == '"')
        return json.substr(p + 1, json.find('"', p + 1) - p - 1);
    return json.substr(p, json.find_first_of(",}", p) - p);
}

// The bytes a message goes out as; its text is freed.
std::string wire(ControlMessage msg)
{
    uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];
    const size_t n = control_message_serialize(&msg, buf);
    control_message_destroy(&msg);
    return std::string(reinterpret_cast<char*>(buf), n);
}

// The daemon's message with the fields of a record the simulator decoded.
ControlMessage message(const sim::ControlRecord& r)
{
    ControlMessage m;
    memset(&m, 0, sizeof m);
    m.type = ControlMessageType(r.type);
    const Position pos{r.width, r.height, r.x, r.y};
    if (m.type == CONTROL_KEYCODE)
        m.keycode = {uint8_t(r.action), r.keycode, r.metastate};
    else if (m.type == CONTROL_TOUCH)
        m.touch = {uint8_t(r.action), r.pointer_id, pos};
    else if (m.type == CONTROL_SCROLL)
        m.scroll = {pos, r.hscroll, r.vscroll};
    else if (m.type == CONTROL_TEXT || m.type == CONTROL_CLIPBOARD)
        m.text.text = strdup(r.text.c_str());
    else if (m.type == CONTROL_SET_MODE)
        m.set_mode.mode = uint8_t(r.mode);
    return m;
}

} // namespace

TEST(WireVectors, SimulatorDecodesAndDaemonSerializesEveryControlMessage)
{
    const std::vector<Vector> vectors = load("control_messages.tsv");
    ASSERT_GE(vectors.size(), 12u); // every type has a vector
    for (const Vector& v : vectors) {
        sim::ControlRecord rec;
        ASSERT_EQ(sim::decode_control(v.bytes.data(), v.bytes.size(), &rec), long(v.bytes.size())) << v.name;
        ASSERT_EQ(sim::control_to_json(rec), v.json) << v.name;
        EXPECT_EQ(wire(message(rec)), std::string(v.bytes.begin(), v.bytes.end())) << v.name;
    }
}

TEST(WireVectors, DaemonReadsAndSimulatorWritesWhatAPhoneSends)
{
    const auto bytes = [](const std::vector<uint8_t>& b) { return std::string(b.begin(), b.end()); };
    for (const Vector& v : load("video_framing.tsv")) {
        const std::string kind = field(v.json, "kind");
        // The simulator writes each record as a phone does (a phone always ends its name with a zero).
        if (kind == "device_info" && v.bytes[DEVICE_NAME_FIELD - 1] == 0) {
            EXPECT_EQ(bytes(sim::encode_device_info(field(v.json, "name"),
                                                    uint16_t(std::stoi(field(v.json, "width"))),
                                                    uint16_t(std::stoi(field(v.json, "height"))))),
                      bytes(v.bytes))
                << v.name;
        }
        if (kind == "packet") {
            uint8_t header[sim::kPacketHeaderSize];
            sim::encode_packet_header(header, std::stoull(field(v.json, "pts")),
                                      uint32_t(std::stoul(field(v.json, "length"))));
            EXPECT_EQ(std::string(header, header + sizeof header), bytes(v.bytes)) << v.name;
        }
        if (kind == "clipboard" || kind == "notify") {
            const auto phone =
                kind == "notify" ? sim::encode_notify() : sim::encode_clipboard(field(v.json, "text"));
            EXPECT_EQ(bytes(phone), bytes(v.bytes)) << v.name;
        }
        if (kind == "device_info") {
            char name[128];
            int size[2] = {0, 0};
            device_info_parse(v.bytes.data(), name, size);
            EXPECT_EQ(name, field(v.json, "name")) << v.name;
            EXPECT_EQ(std::to_string(size[0]) + "x" + std::to_string(size[1]),
                      field(v.json, "width") + "x" + field(v.json, "height"))
                << v.name;
        } else if (kind == "clipboard" || kind == "notify") {
            DeviceMessage msg{99, nullptr};
            const bool clip = kind == "clipboard";
            EXPECT_EQ(device_message_parse(v.bytes.data(), v.bytes.size(), &msg),
                      ssize_t(clip ? v.bytes.size() : 0));
            EXPECT_EQ(msg.type, clip ? DEVICE_CLIPBOARD : DEVICE_NOTIFY) << v.name;
            EXPECT_EQ(msg.text != nullptr ? std::string(msg.text) : "-", clip ? field(v.json, "text") : "-");
            device_message_destroy(&msg);
        }
    }
}

TEST(ControlMessage, TextsAreCutAtTheirLimitsWithoutSplittingCharacters)
{
    const auto text_wire = [](ControlMessageType type, const std::string& text) {
        sim::ControlRecord rec;
        rec.type = type;
        rec.text = text;
        return wire(message(rec));
    };
    const std::string euro = "\xE2\x82\xAC";
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(301, 'a')), "\x01\x01\x2c" + std::string(300, 'a'));
    // A 3-byte character across the limit is left out whole; one ending at it is kept.
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(299, 'c') + euro + "d"),
              "\x01\x01\x2b" + std::string(299, 'c'));
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(297, 'c') + euro + "d"),
              "\x01\x01\x2c" + std::string(297, 'c') + euro);
    EXPECT_EQ(text_wire(CONTROL_CLIPBOARD, std::string(5000, 'x')), "\x08\x0f\xfd" + std::string(4093, 'x'));
    // Nothing but continuation bytes: the backward scan stops at the start.
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(400, '\x80')), std::string("\x01\x00\x00", 3));
}
