// Control message serialisation against the vectors shared with the phone simulator, the text
// limits, and the device message parser's return rules.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#include "control/control_message.h"

namespace {

// Redirects the process's standard output into a temporary file until finish().
class StdoutCapture
{
public:
    StdoutCapture()
    {
        fflush(stdout);
        file_ = tmpfile();
        saved_ = dup(STDOUT_FILENO);
        dup2(fileno(file_), STDOUT_FILENO);
    }
    ~StdoutCapture() { finish(); }

    std::string finish()
    {
        if (file_ == nullptr)
            return text_;
        fflush(stdout);
        dup2(saved_, STDOUT_FILENO);
        close(saved_);
        rewind(file_);
        char chunk[4096];
        size_t n;
        while ((n = fread(chunk, 1, sizeof chunk, file_)) > 0)
            text_.append(chunk, n);
        fclose(file_);
        file_ = nullptr;
        return text_;
    }

private:
    FILE* file_;
    int saved_;
    std::string text_;
};

std::string to_hex(const uint8_t* data, size_t len)
{
    static const char digits[] = "0123456789abcdef";
    std::string out;
    for (size_t i = 0; i < len; i++) {
        out += digits[data[i] >> 4];
        out += digits[data[i] & 15];
    }
    return out;
}

// The vectors' decoded column is one flat JSON object of strings and integers.
std::map<std::string, std::string> parse_flat_json(const std::string& json)
{
    std::map<std::string, std::string> fields;
    size_t i = 0;
    auto skip = [&] {
        while (i < json.size() && (json[i] == ' ' || json[i] == '{' || json[i] == ',' || json[i] == '}'))
            i++;
    };
    auto read_string = [&] {
        std::string s;
        i++; // opening quote
        while (i < json.size() && json[i] != '"') {
            if (json[i] == '\\' && i + 1 < json.size())
                i++;
            s += json[i++];
        }
        i++; // closing quote
        return s;
    };
    for (skip(); i < json.size(); skip()) {
        const std::string key = read_string();
        while (i < json.size() && (json[i] == ':' || json[i] == ' '))
            i++;
        if (json[i] == '"') {
            fields[key] = read_string();
        } else {
            const size_t start = i;
            while (i < json.size() && json[i] != ',' && json[i] != '}')
                i++;
            fields[key] = json.substr(start, i - start);
        }
    }
    return fields;
}

std::string vectors_path()
{
    const char* source = getenv("ORVANE_SOURCE_DIR");
    if (source != nullptr)
        return std::string(source) + "/tests/vectors/control_messages.tsv";
    std::string here = __FILE__;
    return here.substr(0, here.rfind('/')) + "/../vectors/control_messages.tsv";
}

ControlMessage message_from_fields(const std::map<std::string, std::string>& f)
{
    auto num = [&](const char* key) { return std::stoll(f.at(key)); };
    ControlMessage msg;
    memset(&msg, 0, sizeof msg);
    const std::string& type = f.at("type");
    if (type == "touch") {
        msg.type = CONTROL_TOUCH;
        msg.touch.action = static_cast<uint8_t>(num("action"));
        msg.touch.pointer_id = static_cast<uint32_t>(num("pointer_id"));
        msg.touch.position = {static_cast<uint32_t>(num("width")), static_cast<uint32_t>(num("height")),
                              static_cast<int32_t>(num("x")), static_cast<int32_t>(num("y"))};
    } else if (type == "keycode") {
        msg.type = CONTROL_KEYCODE;
        msg.keycode.action = static_cast<uint8_t>(num("action"));
        msg.keycode.keycode = static_cast<uint32_t>(num("keycode"));
        msg.keycode.metastate = static_cast<uint32_t>(num("metastate"));
    } else if (type == "text") {
        msg.type = CONTROL_TEXT;
        msg.text.text = strdup(f.at("text").c_str());
    } else if (type == "clipboard") {
        msg.type = CONTROL_CLIPBOARD;
        msg.clipboard.text = strdup(f.at("text").c_str());
    } else if (type == "scroll") {
        msg.type = CONTROL_SCROLL;
        msg.scroll.position = {static_cast<uint32_t>(num("width")), static_cast<uint32_t>(num("height")),
                               static_cast<int32_t>(num("x")), static_cast<int32_t>(num("y"))};
        msg.scroll.hscroll = static_cast<int32_t>(num("hscroll"));
        msg.scroll.vscroll = static_cast<int32_t>(num("vscroll"));
    } else if (type == "set_mode") {
        msg.type = CONTROL_SET_MODE;
        msg.set_mode.mode = static_cast<uint8_t>(num("mode"));
    } else if (type == "command") {
        msg.type = static_cast<ControlMessageType>(num("command"));
    } else {
        ADD_FAILURE() << "vector of unknown type " << type;
    }
    return msg;
}

size_t serialize_text(ControlMessageType type, const std::string& text, uint8_t* buf)
{
    ControlMessage msg;
    msg.type = type;
    msg.text.text = strdup(text.c_str());
    const size_t n = control_message_serialize(&msg, buf);
    control_message_destroy(&msg);
    return n;
}

} // namespace

TEST(ControlMessage, SerializesEverySharedVector)
{
    std::ifstream in(vectors_path());
    ASSERT_TRUE(in.is_open()) << vectors_path();
    std::string line;
    int checked = 0;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::istringstream cols(line);
        std::string name, hex, json;
        std::getline(cols, name, '\t');
        std::getline(cols, hex, '\t');
        std::getline(cols, json);
        ControlMessage msg = message_from_fields(parse_flat_json(json));
        uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];
        memset(buf, 0xAA, sizeof buf);
        const size_t n = control_message_serialize(&msg, buf);
        EXPECT_EQ(to_hex(buf, n), hex) << name;
        control_message_destroy(&msg);
        checked++;
    }
    // Every type the system defines has at least one vector.
    EXPECT_GE(checked, 12);
}

TEST(ControlMessage, TextsAreCutAtTheirLimitsWithoutSplittingCharacters)
{
    uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];

    // 301 ASCII bytes: 300 go out.
    EXPECT_EQ(serialize_text(CONTROL_TEXT, std::string(301, 'a'), buf), 303u);
    EXPECT_EQ(buf[0], 1);
    EXPECT_EQ(buf[1], 0x01);
    EXPECT_EQ(buf[2], 0x2C);
    EXPECT_EQ(buf[302], 'a');

    // Exactly at the limit nothing is cut.
    EXPECT_EQ(serialize_text(CONTROL_TEXT, std::string(300, 'b'), buf), 303u);

    // A 3-byte character (U+20AC) at bytes 299-301: the cut falls before it.
    const std::string euro = "\xE2\x82\xAC";
    const std::string split = std::string(299, 'c') + euro + "d";
    EXPECT_EQ(serialize_text(CONTROL_TEXT, split, buf), 3u + 299u);
    EXPECT_EQ(buf[1], 0x01);
    EXPECT_EQ(buf[2], 0x2B);
    EXPECT_EQ(buf[3 + 298], 'c');

    // The character ending exactly at the limit stays whole.
    const std::string fits = std::string(297, 'c') + euro + "d";
    EXPECT_EQ(serialize_text(CONTROL_TEXT, fits, buf), 303u);
    EXPECT_EQ(to_hex(buf + 300, 3), "e282ac");

    // Clipboard: 4093 bytes of text, 4096 on the wire, the whole caller's buffer.
    EXPECT_EQ(serialize_text(CONTROL_CLIPBOARD, std::string(5000, 'x'), buf), 4096u);
    EXPECT_EQ(buf[0], 8);
    EXPECT_EQ(buf[1], 0x0F);
    EXPECT_EQ(buf[2], 0xFD);

    // Continuation bytes only: the backward scan stops at the start and nothing is sent.
    const std::string cont(400, '\x80');
    EXPECT_EQ(utf8_cut_index(cont.c_str(), 300), 0u);
    EXPECT_EQ(serialize_text(CONTROL_TEXT, cont, buf), 3u);
    EXPECT_EQ(to_hex(buf, 3), "010000");
}

TEST(ControlMessage, UnknownTypeSendsNothingAndSaysSo)
{
    uint8_t buf[CONTROL_MESSAGE_MAX_SIZE];
    ControlMessage msg;
    memset(&msg, 0, sizeof msg);
    msg.type = static_cast<ControlMessageType>(10);
    StdoutCapture capture;
    const size_t n = control_message_serialize(&msg, buf);
    const std::string out = capture.finish();
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(buf[0], 10); // the type byte is written whatever the type
    EXPECT_EQ(out, "Unknown message type: 10\n");
}

TEST(DeviceMessage, ParserReturnRules)
{
    char sentinel[] = "untouched";
    DeviceMessage msg;

    // Fewer than 3 bytes: 0, and the record keeps its previous type.
    msg.type = 1;
    msg.text = sentinel;
    const uint8_t two[] = {0x00, 0x00};
    EXPECT_EQ(device_message_parse(two, sizeof two, &msg), 0);
    EXPECT_EQ(msg.type, 1u);
    EXPECT_EQ(msg.text, sentinel);

    // A clipboard announcing 10 bytes with 5 present: 0 and no text allocated.
    const uint8_t partial[] = {0x00, 0x00, 0x0A, 'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(device_message_parse(partial, sizeof partial, &msg), 0);
    EXPECT_EQ(msg.type, 0u);
    EXPECT_EQ(msg.text, sentinel);

    // Empty clipboard: consumes the 3 header bytes and yields an empty text.
    const uint8_t empty[] = {0x00, 0x00, 0x00, 0x01};
    EXPECT_EQ(device_message_parse(empty, sizeof empty, &msg), 3);
    ASSERT_NE(msg.text, sentinel);
    ASSERT_NE(msg.text, nullptr);
    EXPECT_STREQ(msg.text, "");
    device_message_destroy(&msg);
    EXPECT_EQ(msg.text, nullptr);

    // A complete clipboard followed by more bytes consumes exactly its own length.
    const uint8_t full[] = {0x00, 0x00, 0x03, 'a', 'b', 'c', 0x00, 0x00};
    EXPECT_EQ(device_message_parse(full, sizeof full, &msg), 6);
    EXPECT_STREQ(msg.text, "abc");
    device_message_destroy(&msg);

    // Notify and the reserved types are recognised but consume nothing.
    for (uint8_t type = 1; type <= 3; type++) {
        const uint8_t in[] = {type, 0x00, 0x00, 0x00};
        EXPECT_EQ(device_message_parse(in, sizeof in, &msg), 0) << int(type);
        EXPECT_EQ(msg.type, type);
    }

    // The largest length a phone can announce, exactly present; one byte less is incomplete.
    std::vector<uint8_t> big(3 + 0xFFFF, 'z');
    big[0] = 0;
    big[1] = 0xFF;
    big[2] = 0xFF;
    EXPECT_EQ(device_message_parse(big.data(), big.size() - 1, &msg), 0);
    ASSERT_EQ(device_message_parse(big.data(), big.size(), &msg), 3 + 0xFFFF);
    EXPECT_EQ(strlen(msg.text), 0xFFFFu);
    device_message_destroy(&msg);

    // Anything above 3 is an error with its line.
    const uint8_t unknown[] = {0xFF, 0x00, 0x00};
    StdoutCapture capture;
    EXPECT_EQ(device_message_parse(unknown, sizeof unknown, &msg), -1);
    EXPECT_EQ(capture.finish(), "Unknown device message type: 255\n");
}
