// The phone simulator against the shared wire vectors (its own encoder and decoder, no daemon
// code) and as a running program: connections in both tunnel directions, a stream that a real
// H.264 decoder turns back into the documented pattern, scripted events, control logging.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <algorithm>
#include <fcntl.h>
#include <fstream>
#include <netinet/in.h>
#include <spawn.h>
#include <sstream>
#include <string>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "sim_wire.h"

extern char** environ;

namespace {

struct Vector {
    std::string name;
    std::vector<uint8_t> bytes;
    std::string json;
};

std::vector<Vector> load_vectors(const std::string& file)
{
    std::vector<Vector> out;
    std::ifstream in(std::string(ORVANE_SOURCE_DIR) + "/tests/vectors/" + file);
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#')
            continue;
        std::stringstream ss(line);
        Vector v;
        std::string hex;
        std::getline(ss, v.name, '\t');
        std::getline(ss, hex, '\t');
        std::getline(ss, v.json);
        for (size_t i = 0; i + 1 < hex.size(); i += 2)
            v.bytes.push_back(uint8_t(std::stoul(hex.substr(i, 2), nullptr, 16)));
        out.push_back(v);
    }
    return out;
}

// Value of "key" in a flat JSON object: the text of a string, or the digits of a number.
std::string json_field(const std::string& json, const std::string& key)
{
    const std::string tag = "\"" + key + "\":";
    const size_t at = json.find(tag);
    if (at == std::string::npos)
        return std::string();
    size_t p = at + tag.size();
    if (json[p] == '"')
        return json.substr(p + 1, json.find('"', p + 1) - p - 1);
    const size_t end = json.find_first_of(",}", p);
    return json.substr(p, end - p);
}

TEST(PhoneSimWire, ControlMessagesDecodeLikeTheSharedVectors)
{
    const std::vector<Vector> vectors = load_vectors("control_messages.tsv");
    ASSERT_GE(vectors.size(), 10u);
    std::vector<uint8_t> all;
    for (const Vector& v : vectors) {
        sim::ControlRecord rec;
        EXPECT_EQ(sim::decode_control(v.bytes.data(), v.bytes.size(), &rec), long(v.bytes.size())) << v.name;
        EXPECT_EQ(sim::control_to_json(rec), v.json) << v.name;
        // Any shorter prefix is an incomplete message, never a wrong one.
        for (size_t n = 0; n < v.bytes.size(); ++n)
            EXPECT_EQ(sim::decode_control(v.bytes.data(), n, &rec), 0) << v.name << " cut at " << n;
        all.insert(all.end(), v.bytes.begin(), v.bytes.end());
    }
    // Back to back on one connection, each message starts where the previous one ended.
    size_t off = 0;
    for (const Vector& v : vectors) {
        sim::ControlRecord rec;
        const long used = sim::decode_control(all.data() + off, all.size() - off, &rec);
        ASSERT_GT(used, 0) << v.name;
        EXPECT_EQ(sim::control_to_json(rec), v.json) << v.name;
        off += size_t(used);
    }
    EXPECT_EQ(off, all.size());

    const uint8_t unknown[] = {10, 0, 0};
    sim::ControlRecord rec;
    EXPECT_EQ(sim::decode_control(unknown, sizeof unknown, &rec), -1);
    // Texts keep every byte and come out as valid JSON strings.
    const uint8_t text[] = {1, 0, 4, '"', '\\', '\n', 'a'};
    ASSERT_EQ(sim::decode_control(text, sizeof text, &rec), 7);
    EXPECT_EQ(sim::control_to_json(rec, "\"t_ns\":5"),
              "{\"type\":\"text\",\"text\":\"\\\"\\\\\\u000aa\",\"t_ns\":5}");
}

TEST(PhoneSimWire, PhoneSideBytesMatchTheSharedVectors)
{
    const std::vector<Vector> vectors = load_vectors("video_framing.tsv");
    ASSERT_GE(vectors.size(), 9u);
    for (const Vector& v : vectors) {
        const std::string kind = json_field(v.json, "kind");
        std::vector<uint8_t> got;
        if (kind == "device_info") {
            std::string name = json_field(v.json, "name");
            if (v.name == "info_name_64_cut_to_63")
                name += "N"; // one character more than fits
            got = sim::encode_device_info(name, uint16_t(std::stoi(json_field(v.json, "width"))),
                                          uint16_t(std::stoi(json_field(v.json, "height"))));
        } else if (kind == "packet") {
            got.resize(sim::kPacketHeaderSize);
            sim::encode_packet_header(got.data(), std::stoull(json_field(v.json, "pts")),
                                      uint32_t(std::stoul(json_field(v.json, "length"))));
        } else if (kind == "clipboard") {
            got = sim::encode_clipboard(json_field(v.json, "text"));
        } else if (kind == "notify") {
            got = sim::encode_notify();
        } else {
            ADD_FAILURE() << "unknown vector kind " << kind;
        }
        EXPECT_EQ(got, v.bytes) << v.name;
    }
}

TEST(PhoneSimWire, AccessUnitsSplitAtPictureBoundaries)
{
    const std::vector<uint8_t> sps = {0, 0, 0, 1, 0x67, 0x42};
    const std::vector<uint8_t> pps = {0, 0, 0, 1, 0x68, 0xce};
    const std::vector<uint8_t> idr = {0, 0, 1, 0x65, 0x88, 0x10};   // first_mb 0
    const std::vector<uint8_t> idr2 = {0, 0, 1, 0x65, 0x40, 0x20};  // second slice, same picture
    const std::vector<uint8_t> p1 = {0, 0, 0, 1, 0x41, 0x9a, 0x01}; // next picture
    const std::vector<uint8_t> aud = {0, 0, 0, 1, 0x09, 0xf0};
    const std::vector<uint8_t> p2 = {0, 0, 1, 0x41, 0x9b};
    std::vector<uint8_t> s;
    for (const auto* part : {&sps, &pps, &idr, &idr2, &p1, &aud, &p2})
        s.insert(s.end(), part->begin(), part->end());
    const auto units = sim::split_access_units(s);
    ASSERT_EQ(units.size(), 3u);
    EXPECT_EQ(units[0].size(), sps.size() + pps.size() + idr.size() + idr2.size());
    EXPECT_EQ(units[1], p1);
    EXPECT_EQ(units[2].size(), aud.size() + p2.size());
}

TEST(PhoneSimWire, EventScriptsParseOrAreRejected)
{
    sim::Script script;
    std::string error;
    ASSERT_TRUE(
        sim::parse_script("rotate@30,clipboard:a@b@5,notify@7,frames=12,short-info", &script, &error));
    ASSERT_EQ(script.events.size(), 3u);
    EXPECT_EQ(script.events[0].kind, sim::EventKind::Rotate);
    EXPECT_EQ(script.events[0].frame, 30u);
    EXPECT_EQ(script.events[1].kind, sim::EventKind::Clipboard);
    EXPECT_EQ(script.events[1].text, "a@b");
    EXPECT_EQ(script.events[1].frame, 5u);
    EXPECT_EQ(script.frames, 12);
    EXPECT_TRUE(script.short_info);
    for (const char* bad : {"wobble@3", "eos", "eos@x", "frames=-1", "rotate@"}) {
        EXPECT_FALSE(sim::parse_script(bad, &script, &error)) << bad;
        EXPECT_FALSE(error.empty());
    }
}

// ---- the running simulator ----

int listen_any_port(uint16_t* port)
{
    const int s = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    bind(s, reinterpret_cast<sockaddr*>(&a), sizeof a);
    listen(s, 4);
    socklen_t len = sizeof a;
    getsockname(s, reinterpret_cast<sockaddr*>(&a), &len);
    *port = ntohs(a.sin_port);
    return s;
}

void set_timeout(int fd, int ms)
{
    timeval tv{ms / 1000, (ms % 1000) * 1000};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
}

bool recv_exact(int fd, void* buf, size_t len)
{
    size_t got = 0;
    while (got < len) {
        const ssize_t n = recv(fd, static_cast<char*>(buf) + got, len - got, 0);
        if (n <= 0)
            return false;
        got += size_t(n);
    }
    return true;
}

std::string read_file(const std::string& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

class Sim
{
public:
    Sim(const std::vector<std::string>& args, const std::vector<std::string>& env,
        bool capture_stderr = false)
    {
        std::vector<std::string> a = {PHONE_SIM_PATH};
        a.insert(a.end(), args.begin(), args.end());
        std::vector<char*> argv;
        for (std::string& s : a)
            argv.push_back(&s[0]);
        argv.push_back(nullptr);
        std::vector<std::string> e = env;
        for (char** p = environ; *p != nullptr; ++p)
            if (strncmp(*p, "PHONE_SIM_", 10) != 0)
                e.push_back(*p);
        std::vector<char*> envp;
        for (std::string& s : e)
            envp.push_back(&s[0]);
        envp.push_back(nullptr);
        posix_spawn_file_actions_t fa;
        posix_spawn_file_actions_init(&fa);
        if (capture_stderr) {
            char tmpl[] = "/tmp/phone_sim_err.XXXXXX";
            const int fd = mkstemp(tmpl);
            close(fd);
            err_path_ = tmpl;
            posix_spawn_file_actions_addopen(&fa, STDERR_FILENO, tmpl, O_WRONLY | O_TRUNC, 0644);
        }
        posix_spawn(&pid_, argv[0], &fa, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&fa);
    }
    ~Sim()
    {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        if (!err_path_.empty())
            unlink(err_path_.c_str());
    }
    // Exit status after SIGTERM (or after it ended by itself), -1 when it took longer than 3 s.
    int terminate()
    {
        kill(pid_, SIGTERM);
        return wait_exit(3000);
    }
    int wait_exit(int ms)
    {
        for (int i = 0; i < ms / 10; ++i) {
            int status = 0;
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            usleep(10000);
        }
        return -1;
    }
    std::string stderr_text() const { return read_file(err_path_); }

private:
    pid_t pid_ = -1;
    std::string err_path_;
};

struct Packet {
    uint64_t pts;
    std::vector<uint8_t> payload;
};

bool read_packet(int fd, Packet* p, uint32_t* length)
{
    uint8_t h[12];
    if (!recv_exact(fd, h, sizeof h))
        return false;
    p->pts = 0;
    for (int i = 0; i < 8; ++i)
        p->pts = p->pts << 8 | h[i];
    *length = uint32_t(h[8]) << 24 | uint32_t(h[9]) << 16 | uint32_t(h[10]) << 8 | h[11];
    if (*length > (1u << 20))
        return true;
    p->payload.resize(*length);
    return recv_exact(fd, p->payload.data(), *length);
}

class TempFiles
{
public:
    std::string make(const char* stem)
    {
        char tmpl[64];
        snprintf(tmpl, sizeof tmpl, "/tmp/phone_sim_%s.XXXXXX", stem);
        close(mkstemp(tmpl));
        paths_.push_back(tmpl);
        return tmpl;
    }
    ~TempFiles()
    {
        for (const std::string& p : paths_)
            unlink(p.c_str());
    }

private:
    std::vector<std::string> paths_;
};

TEST(PhoneSimProgram, ReverseTunnelStreamsThePatternAndLogsControl)
{
    TempFiles tmp;
    const std::string control_log = tmp.make("control");
    const std::string sim_log = tmp.make("log");
    uint16_t port;
    const int listener = listen_any_port(&port);
    Sim sim({"com.qvo.alink.Server", "320:240", "2000000", "false", "-", "true", "true"},
            {"PHONE_SIM_PORT=" + std::to_string(port), "PHONE_SIM_CONTROL_LOG=" + control_log,
             "PHONE_SIM_LOG=" + sim_log, "PHONE_SIM_FPS=60",
             "PHONE_SIM_EVENTS=rotate@2,clipboard:hello@1,notify@3"});
    set_timeout(listener, 5000);
    const int video = accept(listener, nullptr, nullptr);
    ASSERT_GE(video, 0);
    const int control = accept(listener, nullptr, nullptr);
    ASSERT_GE(control, 0);
    set_timeout(video, 5000);
    set_timeout(control, 5000);

    uint8_t info[68];
    ASSERT_TRUE(recv_exact(video, info, sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
    EXPECT_EQ(info[64] << 8 | info[65], 320);
    EXPECT_EQ(info[66] << 8 | info[67], 240);

    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    ASSERT_EQ(avcodec_open2(ctx, codec, nullptr), 0);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    int decoded = 0;
    std::vector<uint64_t> pts;
    for (int i = 0; i < 6; ++i) {
        Packet p;
        uint32_t len = 0;
        ASSERT_TRUE(read_packet(video, &p, &len)) << "packet " << i;
        pts.push_back(p.pts);
        ASSERT_GT(len, 0u);
        pkt->data = p.payload.data();
        pkt->size = int(p.payload.size());
        ASSERT_EQ(avcodec_send_packet(ctx, pkt), 0);
        // Each access unit is a whole picture: it comes out of a low-delay decoder at once.
        while (avcodec_receive_frame(ctx, frame) == 0) {
            ++decoded;
            ASSERT_EQ(frame->width, 320);
            ASSERT_EQ(frame->height, 240);
            auto y = [&](int x, int row) { return int(frame->data[0][row * frame->linesize[0] + x]); };
            auto v = [&](int x, int row) {
                return int(frame->data[2][row / 2 * frame->linesize[2] + x / 2]);
            };
            // red (Y 81, V 240), green (Y 145), blue (Y 41, V 110), black strip (Y 16)
            EXPECT_NEAR(y(50, 80), 81, 6);
            EXPECT_NEAR(v(50, 80), 240, 6);
            EXPECT_NEAR(y(160, 80), 145, 6);
            EXPECT_NEAR(y(270, 80), 41, 6);
            EXPECT_NEAR(v(270, 80), 110, 6);
            EXPECT_NEAR(y(300, 230), 16, 6);
        }
    }
    EXPECT_GE(decoded, 5);
    EXPECT_EQ(pts[2], ~uint64_t(0)) << "rotation is announced on frame 2";
    EXPECT_LT(pts[1], pts[3]);

    uint8_t dev[8];
    ASSERT_TRUE(recv_exact(control, dev, 8));
    const uint8_t expected_dev[] = {0, 0, 5, 'h', 'e', 'l', 'l', 'o'};
    EXPECT_EQ(memcmp(dev, expected_dev, 8), 0);
    ASSERT_TRUE(recv_exact(control, dev, 3));
    EXPECT_EQ(dev[0], 1);

    // A touch split in two writes and a key right behind it.
    const uint8_t touch[] = {2, 0, 0, 0, 0, 1, 0, 0, 0, 100, 0, 0, 0, 200, 5, 0, 2, 208};
    const uint8_t key[] = {0, 1, 0, 0, 0, 82, 0, 0, 0, 0};
    ASSERT_EQ(send(control, touch, 7, 0), 7);
    usleep(50000);
    ASSERT_EQ(send(control, touch + 7, sizeof touch - 7, 0), ssize_t(sizeof touch - 7));
    ASSERT_EQ(send(control, key, sizeof key, 0), ssize_t(sizeof key));
    std::string log;
    for (int i = 0; i < 300; ++i) {
        log = read_file(control_log);
        if (std::count(log.begin(), log.end(), '\n') >= 2)
            break;
        usleep(10000);
    }
    std::stringstream lines(log);
    std::string first, second;
    std::getline(lines, first);
    std::getline(lines, second);
    EXPECT_EQ(
        first.rfind("{\"type\":\"touch\",\"action\":0,\"pointer_id\":1,\"x\":100,\"y\":200,\"width\":1280,"
                    "\"height\":720,\"t_ns\":",
                    0),
        0u)
        << first;
    EXPECT_EQ(second.rfind("{\"type\":\"keycode\",\"action\":1,\"keycode\":82,\"metastate\":0,\"t_ns\":", 0),
              0u)
        << second;
    EXPECT_LE(std::stoll(json_field(first, "t_ns")), std::stoll(json_field(second, "t_ns")));

    EXPECT_EQ(sim.terminate(), 0);
    EXPECT_NE(read_file(sim_log).find("end: terminated"), std::string::npos);
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    close(video);
    close(control);
    close(listener);
}

TEST(PhoneSimProgram, ForwardTunnelSendsOneByteBeforeTheStream)
{
    uint16_t port;
    close(listen_any_port(&port)); // a free port for the simulator to listen on
    Sim sim({"com.qvo.alink.Server", "-", "1000000", "true", "-", "true", "false"},
            {"PHONE_SIM_PORT=" + std::to_string(port), "PHONE_SIM_NAME=Forward Phone",
             "PHONE_SIM_SIZE=1080:1920", "PHONE_SIM_EVENTS=frames=1"});
    int video = -1;
    for (int i = 0; i < 300 && video < 0; ++i) {
        video = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in a{};
        a.sin_family = AF_INET;
        a.sin_port = htons(port);
        a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (connect(video, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0) {
            close(video);
            video = -1;
            usleep(10000);
        }
    }
    ASSERT_GE(video, 0);
    set_timeout(video, 5000);
    uint8_t first;
    ASSERT_TRUE(recv_exact(video, &first, 1));
    const int control = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(connect(control, reinterpret_cast<sockaddr*>(&a), sizeof a), 0);
    uint8_t info[68];
    ASSERT_TRUE(recv_exact(video, info, sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Forward Phone");
    EXPECT_EQ(info[64] << 8 | info[65], 1080) << "PHONE_SIM_SIZE overrides the announced size";
    EXPECT_EQ(info[66] << 8 | info[67], 1920);
    Packet p;
    uint32_t len = 0;
    ASSERT_TRUE(read_packet(video, &p, &len));
    EXPECT_GT(len, 0u);
    // frames=1: nothing more, but the connection stays open until the head unit leaves.
    set_timeout(video, 300);
    uint8_t more;
    EXPECT_EQ(recv(video, &more, 1, 0), -1);
    EXPECT_EQ(errno, EAGAIN);
    close(video);
    close(control);
    EXPECT_EQ(sim.wait_exit(3000), 0) << "the simulator ends when the head unit closes";
}

// Scripted faults, each on a fresh connection: what the head unit sees after two good frames.
TEST(PhoneSimProgram, ScriptedFaultsReachTheWire)
{
    struct Case {
        const char* events;
        int header_bytes; // bytes of the 68-byte record that arrive
        bool closes;      // connection ends by itself after the fault
        uint32_t length;  // length field of the third header (when it is a header)
    };
    const Case cases[] = {
        {"eos@2", 68, false, 0},
        {"oversize@2", 68, false, 0x200000},
        {"close@2", 68, true, 0},
        {"short-info", 30, true, 0},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.events);
        uint16_t port;
        const int listener = listen_any_port(&port);
        Sim sim({"com.qvo.alink.Server", "160:120", "500000", "false", "-", "true", "true"},
                {"PHONE_SIM_PORT=" + std::to_string(port), std::string("PHONE_SIM_EVENTS=") + c.events});
        set_timeout(listener, 5000);
        const int video = accept(listener, nullptr, nullptr);
        const int control = accept(listener, nullptr, nullptr);
        ASSERT_GE(video, 0);
        ASSERT_GE(control, 0);
        set_timeout(video, 3000);
        std::vector<uint8_t> info(68);
        if (c.header_bytes < 68) {
            ASSERT_TRUE(recv_exact(video, info.data(), size_t(c.header_bytes)));
            EXPECT_EQ(recv(video, info.data(), 1, 0), 0) << "closed right after the short record";
        } else {
            ASSERT_TRUE(recv_exact(video, info.data(), 68));
            Packet p;
            uint32_t len = 0;
            ASSERT_TRUE(read_packet(video, &p, &len));
            ASSERT_TRUE(read_packet(video, &p, &len));
            if (c.closes) {
                uint8_t b;
                EXPECT_EQ(recv(video, &b, 1, 0), 0);
            } else {
                ASSERT_TRUE(read_packet(video, &p, &len));
                EXPECT_EQ(len, c.length);
                set_timeout(video, 200);
                uint8_t b;
                EXPECT_EQ(recv(video, &b, 1, 0), -1) << "idle afterwards, connection kept open";
            }
        }
        EXPECT_EQ(c.closes ? sim.wait_exit(3000) : sim.terminate(), 0);
        close(video);
        close(control);
        close(listener);
    }
}

TEST(PhoneSimProgram, BadArgumentsAreRefusedWithUsage)
{
    const std::vector<std::vector<std::string>> bad = {
        {"com.qvo.alink.Server", "1280:720"},
        {"com.qvo.alink.Server", "12x7", "8000000", "false", "-", "true", "true"},
        {"com.qvo.alink.Server", "1280:720", "fast", "false", "-", "true", "true"},
        {"com.qvo.alink.Server", "1280:720", "8000000", "maybe", "-", "true", "true"},
        {"wifi"},
        {"org.other.Server"},
    };
    for (const auto& args : bad) {
        Sim sim(args, {}, true);
        EXPECT_EQ(sim.wait_exit(3000), 2) << args[0] << " " << args.size();
        EXPECT_NE(sim.stderr_text().find("usage: phone-sim"), std::string::npos);
    }
    Sim sim({"com.qvo.alink.Server", "-", "8000000", "false", "-", "true", "true"},
            {"PHONE_SIM_EVENTS=jump@3"}, true);
    EXPECT_EQ(sim.wait_exit(3000), 2);
    EXPECT_NE(sim.stderr_text().find("unknown event 'jump'"), std::string::npos);
}

} // namespace
