// Test clips: a real H.264 stream encoded by the ffmpeg command-line tool (libx264, baseline-like
// settings a phone would send: no B-frames, headers repeated, an access unit delimiter on every
// frame), split into Annex-B access units, one per frame, start codes included.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <sys/wait.h>
#include <unistd.h>

namespace h264_clip_detail {

inline std::vector<uint8_t> read_file(const std::string& path)
{
    std::vector<uint8_t> data;
    FILE* f = std::fopen(path.c_str(), "rb");
    if (!f)
        return data;
    uint8_t chunk[65536];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0)
        data.insert(data.end(), chunk, chunk + n);
    std::fclose(f);
    return data;
}

// Splits at every access unit delimiter (NAL type 9). The zero byte of a four-byte start code
// belongs to the unit it starts, not to the end of the previous one.
inline std::vector<std::vector<uint8_t>> split_access_units(const std::vector<uint8_t>& s)
{
    std::vector<size_t> starts;
    for (size_t i = 0; i + 3 < s.size(); ++i) {
        if (s[i] == 0 && s[i + 1] == 0 && s[i + 2] == 1) {
            if ((s[i + 3] & 0x1f) == 9)
                starts.push_back(i > 0 && s[i - 1] == 0 ? i - 1 : i);
            i += 2;
        }
    }
    std::vector<std::vector<uint8_t>> units;
    for (size_t k = 0; k < starts.size(); ++k) {
        size_t end = k + 1 < starts.size() ? starts[k + 1] : s.size();
        units.emplace_back(s.begin() + starts[k], s.begin() + end);
    }
    return units;
}

} // namespace h264_clip_detail

// `source` is an ffmpeg lavfi source name with optional options, e.g. "testsrc2", "smptebars" or
// "color=c=red"; size and rate are appended. Throws when ffmpeg is missing or fails.
inline std::vector<std::vector<uint8_t>> make_h264_clip(int w, int h, int frames, int fps,
                                                        const char* source = "testsrc2")
{
    char dir[] = "/tmp/orvane-clip-XXXXXX";
    if (!mkdtemp(dir))
        throw std::runtime_error("make_h264_clip: cannot create a temporary directory");
    const std::string out = std::string(dir) + "/clip.h264";
    const std::string err = std::string(dir) + "/ffmpeg.err";
    std::string src = source;
    src += (src.find('=') == std::string::npos ? "=" : ":");
    src += "size=" + std::to_string(w) + "x" + std::to_string(h) + ":rate=" + std::to_string(fps);
    const std::string cmd = "ffmpeg -nostdin -v error -y -f lavfi -i '" + src + "' -frames:v " +
                            std::to_string(frames) +
                            " -pix_fmt yuv420p -c:v libx264 -preset ultrafast -tune zerolatency -bf 0"
                            " -x264-params aud=1:repeat-headers=1 -f h264 '" +
                            out + "' 2>'" + err + "'";
    int rc = std::system(cmd.c_str());
    std::vector<uint8_t> stream = h264_clip_detail::read_file(out);
    std::vector<uint8_t> errors = h264_clip_detail::read_file(err);
    unlink(out.c_str());
    unlink(err.c_str());
    rmdir(dir);
    if (rc == -1 || !WIFEXITED(rc) || WEXITSTATUS(rc) != 0 || stream.empty()) {
        std::string why(errors.begin(), errors.end());
        if (WIFEXITED(rc) && WEXITSTATUS(rc) == 127)
            why = "ffmpeg not found on PATH (install the ffmpeg package)";
        throw std::runtime_error("make_h264_clip: ffmpeg failed (" + cmd + "): " + why);
    }
    auto units = h264_clip_detail::split_access_units(stream);
    if (static_cast<int>(units.size()) != frames)
        throw std::runtime_error("make_h264_clip: expected " + std::to_string(frames) +
                                 " access units, got " + std::to_string(units.size()));
    return units;
}
