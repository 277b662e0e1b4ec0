// The phone simulator: its own wire code against the shared vectors (no daemon code), and one run
// of the program whose stream a real H.264 decoder turns back into the documented pattern.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <csignal>
#include <fstream>
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
    std::string name, json;
    std::vector<uint8_t> bytes;
};

std::vector<Vector> load_vectors(const std::string& file)
{
    std::vector<Vector> out;
    std::ifstream in(std::string(ORVANE_SOURCE_DIR) + "/tests/vectors/" + file);
    for (std::string line, hex; std::getline(in, line);) {
        if (line.empty() || line[0] == '#')
            continue;
        std::stringstream ss(line);
        Vector v;
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
    const size_t at = json.find("\"" + key + "\":");
    if (at == std::string::npos)
        return std::string();
    const size_t p = at + key.size() + 3;
    if (json[p] == '"')
        return json.substr(p + 1, json.find('"', p + 1) - p - 1);
    return json.substr(p, json.find_first_of(",}", p) - p);
}

} // namespace

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
}

TEST(PhoneSimWire, PhoneSideBytesMatchTheSharedVectors)
{
    const std::vector<Vector> vectors = load_vectors("video_framing.tsv");
    ASSERT_GE(vectors.size(), 9u);
    for (const Vector& v : vectors) {
        const std::string kind = json_field(v.json, "kind");
        std::vector<uint8_t> got;
        if (kind == "device_info") {
            // The too-long name is one character more than fits.
            const std::string name =
                json_field(v.json, "name") + (v.name == "info_name_64_cut_to_63" ? "N" : "");
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

TEST(PhoneSimProgram, ReverseTunnelStreamsAPatternADecoderSees)
{
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{AF_INET, 0, {htonl(INADDR_LOOPBACK)}, {}};
    socklen_t len = sizeof a;
    ASSERT_EQ(bind(listener, reinterpret_cast<sockaddr*>(&a), len), 0);
    ASSERT_EQ(listen(listener, 2), 0);
    getsockname(listener, reinterpret_cast<sockaddr*>(&a), &len);
    const timeval timeout{5, 0};
    setsockopt(listener, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);

    setenv("PHONE_SIM_PORT", std::to_string(ntohs(a.sin_port)).c_str(), 1);
    setenv("PHONE_SIM_FPS", "60", 1);
    const char* argv[] = {
        PHONE_SIM_PATH, "com.qvo.alink.Server", "320:240", "2000000", "false", "-", "true", "true", nullptr};
    struct Sim { // killed if the test ends early
        pid_t pid = -1;
        ~Sim()
        {
            if (pid > 0 && kill(pid, SIGKILL) == 0)
                waitpid(pid, nullptr, 0);
        }
    } sim;
    ASSERT_EQ(posix_spawn(&sim.pid, argv[0], nullptr, nullptr, const_cast<char* const*>(argv), environ), 0);

    // Video first, then control; the stream begins with the device information.
    const int video = accept(listener, nullptr, nullptr), control = accept(listener, nullptr, nullptr);
    EXPECT_GE(control, 0);
    ASSERT_GE(video, 0);
    setsockopt(video, SOL_SOCKET, SO_RCVTIMEO, &timeout, sizeof timeout);
    uint8_t info[68];
    ASSERT_EQ(recv(video, info, sizeof info, MSG_WAITALL), ssize_t(sizeof info));
    EXPECT_STREQ(reinterpret_cast<char*>(info), "Orvane Phone Simulator");
    EXPECT_EQ(info[64] << 8 | info[65], 320);
    EXPECT_EQ(info[66] << 8 | info[67], 240);

    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    AVCodecContext* ctx = avcodec_alloc_context3(codec);
    ASSERT_EQ(avcodec_open2(ctx, codec, nullptr), 0);
    AVPacket* pkt = av_packet_alloc();
    AVFrame* frame = av_frame_alloc();
    int decoded = 0;
    for (int i = 0; i < 6; ++i) {
        uint8_t h[12];
        ASSERT_EQ(recv(video, h, sizeof h, MSG_WAITALL), 12) << "packet " << i;
        std::vector<uint8_t> payload(uint32_t(h[8]) << 24 | uint32_t(h[9]) << 16 | uint32_t(h[10]) << 8 |
                                     h[11]);
        ASSERT_GT(payload.size(), 0u);
        ASSERT_EQ(recv(video, payload.data(), payload.size(), MSG_WAITALL), ssize_t(payload.size()));
        pkt->data = payload.data();
        pkt->size = int(payload.size());
        ASSERT_EQ(avcodec_send_packet(ctx, pkt), 0);
        // Each access unit is a whole picture: it comes out of a low-delay decoder at once.
        for (; avcodec_receive_frame(ctx, frame) == 0; ++decoded) {
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
    av_frame_free(&frame);
    av_packet_free(&pkt);
    avcodec_free_context(&ctx);
    kill(sim.pid, SIGTERM);
    int status = -1;
    EXPECT_EQ(waitpid(sim.pid, &status, 0), sim.pid);
    sim.pid = -1;
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
    for (int fd : {video, control, listener})
        close(fd);
}
