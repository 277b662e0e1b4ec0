// Real H.264 clips as a phone sends them, made by the ffmpeg command-line tool (libx264, no
// B-frames, headers repeated, an access unit delimiter per frame).
#pragma once

#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <unistd.h>

// One Annex-B access unit per frame of an ffmpeg lavfi source ("testsrc2", "color=c=red").
inline std::vector<std::vector<uint8_t>> make_h264_clip(int w, int h, int frames, int fps,
                                                        const std::string& source = "testsrc2")
{
    static int serial = 0;
    const std::string out = "/tmp/orvane-ffmpeg-" + std::to_string(getpid()) + "-" + std::to_string(++serial);
    const int rc = std::system(("ffmpeg -nostdin -v error -y -f lavfi -i '" + source + "' -frames:v " +
                                std::to_string(frames) + " -s " + std::to_string(w) + "x" +
                                std::to_string(h) + " -r " + std::to_string(fps) +
                                " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -tune zerolatency -bf 0"
                                " -x264-params aud=1:repeat-headers=1 -f h264 '" +
                                out + "'")
                                   .c_str());
    std::ifstream f(out, std::ios::binary);
    const std::vector<uint8_t> s(std::istreambuf_iterator<char>(f), {});
    unlink(out.c_str());
    // Units start at each delimiter (NAL type 9), with the leading zero of a four-byte start code.
    std::vector<size_t> starts;
    for (size_t i = 0; rc == 0 && i + 3 < s.size(); ++i)
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1 && (s[i + 3] & 0x1f) == 9)
            starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
    starts.push_back(s.size());
    std::vector<std::vector<uint8_t>> units;
    for (size_t k = 0; k + 1 < starts.size(); ++k)
        units.emplace_back(s.begin() + starts[k], s.begin() + starts[k + 1]);
    if (static_cast<int>(units.size()) != frames)
        throw std::runtime_error("ffmpeg with libx264 gave " + std::to_string(units.size()) +
                                 " frames, not " + std::to_string(frames));
    return units;
}
