// Control message bytes against the vectors shared with the phone simulator, the text limits, and
// the device message parser's return rules.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "control/control_message.h"

using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStdout;

namespace {

std::string to_hex(const std::string& bytes)
{
    std::string out;
    char two[3];
    for (unsigned char b : bytes) {
        snprintf(two, sizeof two, "%02x", b);
        out += two;
    }
    return out;
}

// The bytes a message goes out as; its text is freed.
std::string wire(ControlMessage msg)
{
    uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];
    const size_t n = control_message_serialize(&msg, buf);
    control_message_destroy(&msg);
    return std::string(reinterpret_cast<char*>(buf), n);
}

std::string text_wire(ControlMessageType type, const std::string& text)
{
    ControlMessage msg;
    msg.type = type;
    msg.text.text = strdup(text.c_str());
    return wire(msg);
}

// A field of a vector's decoded column, a flat JSON object: a string's contents or a number's digits.
std::string field(const std::string& json, const std::string& key)
{
    size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos)
        return "";
    at = json.find_first_not_of(' ', at + key.size() + 3);
    if (json[at] == '"')
        return json.substr(at + 1, json.find('"', at + 1) - at - 1);
    return json.substr(at, json.find_first_of(",}", at) - at);
}

ControlMessage from_json(const std::string& json)
{
    auto num = [&](const char* key) {
        const std::string digits = field(json, key);
        return digits.empty() ? 0 : std::stoll(digits);
    };
    const Position pos{uint32_t(num("width")), uint32_t(num("height")), int32_t(num("x")), int32_t(num("y"))};
    const std::map<std::string, ControlMessageType> types = {
        {"touch", CONTROL_TOUCH},         {"keycode", CONTROL_KEYCODE}, {"text", CONTROL_TEXT},
        {"clipboard", CONTROL_CLIPBOARD}, {"scroll", CONTROL_SCROLL},   {"set_mode", CONTROL_SET_MODE}};
    const std::string type = field(json, "type");
    ControlMessage m;
    memset(&m, 0, sizeof m);
    m.type = type == "command" ? ControlMessageType(num("command")) : types.at(type);
    if (type == "touch")
        m.touch = {uint8_t(num("action")), uint32_t(num("pointer_id")), pos};
    else if (type == "keycode")
        m.keycode = {uint8_t(num("action")), uint32_t(num("keycode")), uint32_t(num("metastate"))};
    else if (type == "text" || type == "clipboard")
        m.text.text = strdup(field(json, "text").c_str());
    else if (type == "scroll")
        m.scroll = {pos, int32_t(num("hscroll")), int32_t(num("vscroll"))};
    else if (type == "set_mode")
        m.set_mode.mode = uint8_t(num("mode"));
    return m;
}

} // namespace

TEST(ControlMessage, SerializesEverySharedVector)
{
    const std::string here = __FILE__;
    const std::string path = here.substr(0, here.rfind("/unit/")) + "/vectors/control_messages.tsv";
    std::ifstream in(path);
    ASSERT_TRUE(in.is_open()) << path;
    int checked = 0;
    for (std::string line; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream row(line); // name, wire bytes, decoded fields
        std::string name, hex, json;
        std::getline(row, name, '\t');
        std::getline(row, hex, '\t');
        std::getline(row, json);
        EXPECT_EQ(to_hex(wire(from_json(json))), hex) << name;
        checked++;
    }
    EXPECT_GE(checked, 12); // every type has a vector

    ControlMessage unknown;
    unknown.type = static_cast<ControlMessageType>(10);
    CaptureStdout();
    EXPECT_EQ(wire(unknown), "");
    EXPECT_EQ(GetCapturedStdout(), "Unknown message type: 10\n");
}

TEST(ControlMessage, TextsAreCutAtTheirLimitsWithoutSplittingCharacters)
{
    const std::string euro = "\xE2\x82\xAC";
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(301, 'a')), "\x01\x01\x2c" + std::string(300, 'a'));
    // A 3-byte character across the limit is left out whole; one ending at it is kept.
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(299, 'c') + euro + "d"),
              "\x01\x01\x2b" + std::string(299, 'c'));
    EXPECT_EQ(text_wire(CONTROL_TEXT, std::string(297, 'c') + euro + "d"),
              "\x01\x01\x2c" + std::string(297, 'c') + euro);
    EXPECT_EQ(text_wire(CONTROL_CLIPBOARD, std::string(5000, 'x')), "\x08\x0f\xfd" + std::string(4093, 'x'));
    // Nothing but continuation bytes: the backward scan stops at the start.
    EXPECT_EQ(utf8_cut_index(std::string(400, '\x80').c_str(), 300), 0u);
    EXPECT_EQ(to_hex(text_wire(CONTROL_TEXT, std::string(400, '\x80'))), "010000");
}

TEST(DeviceMessage, ParserReturnRules)
{
    const struct {
        std::vector<uint8_t> in;
        ssize_t ret;
        uint32_t type;    // 99: the record keeps its previous type
        std::string text; // "-": no text allocated
    } cases[] = {
        {{0x00, 0x00}, 0, 99, "-"},
        {{0x00, 0x00, 0x0A, 'h', 'e', 'l', 'l', 'o'}, 0, 0, "-"},
        {{0x00, 0x00, 0x00, 0x01}, 3, 0, ""},
        {{0x00, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x00}, 6, 0, "abc"},
        {{0x01, 0x00, 0x00, 0x00}, 0, 1, "-"},
        {{0x03, 0x00, 0x00}, 0, 3, "-"},
        {{0xFF, 0x00, 0x00}, -1, 255, "-"},
    };
    CaptureStdout();
    for (const auto& c : cases) {
        char sentinel[] = "-";
        DeviceMessage msg{99, sentinel};
        EXPECT_EQ(device_message_parse(c.in.data(), c.in.size(), &msg), c.ret) << c.in.size();
        EXPECT_EQ(msg.type, c.type) << c.in.size();
        EXPECT_EQ(msg.text, c.text) << c.in.size();
        EXPECT_EQ(msg.text == sentinel, c.text == "-");
        if (msg.text != sentinel)
            device_message_destroy(&msg);
    }
    EXPECT_EQ(GetCapturedStdout(), "Unknown device message type: 255\n");
}
