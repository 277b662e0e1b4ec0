// phone-sim: stands in for the phone. As the phone-side server (launched by fake-adb where adb
// would start it with app_process) it makes or takes the video and control connections, sends the
// device information and a real H.264 stream of its screen, logs every control message it receives,
// hands touches and keys to its screen and sends device messages on request. As the Wi-Fi phone app
// it connects to the head unit and streams. Usage text below lists the environment that scripts it;
// the phone's screen is described in sim_phone.h, the test pattern in sim_encoder.h.
#include <atomic>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include "sim_discovery.h"
#include "sim_source.h"
#include "sim_wire.h"

namespace {

const char kUsage[] =
    "usage: phone-sim com.qvo.alink.Server SIZE BITRATE TUNNEL_FORWARD OPTION true FLAG\n"
    "       phone-sim wifi --connect HOST:PORT | --discover [SECONDS]\n"
    "                      [--bad-magic] [--silent] [--drop-at N] [--reconnect MS]\n"
    "\n"
    "Server mode (what fake-adb runs for 'adb shell ... app_process / com.qvo.alink.Server ...'):\n"
    "  SIZE W:H or '-', BITRATE decimal, TUNNEL_FORWARD true|false, FLAG true|false.\n"
    "  TUNNEL_FORWARD false: connect to 127.0.0.1:PORT twice (video, then control).\n"
    "  TUNNEL_FORWARD true: listen on 127.0.0.1:PORT, accept video then control, send one byte on\n"
    "  the video connection first.\n"
    "Wi-Fi mode: connect to HOST:PORT, or find the head unit by DNS-SD (--discover: browse\n"
    "  _qvo_mirroring._tcp, resolve it, check and log its TXT record, look up the host's IPv4\n"
    "  address; default limit 30 s), send the 68-byte header (name \"AFFA\" + PHONE_SIM_NAME),\n"
    "  stream, log every acknowledge byte with the number of frames sent so far.\n"
    "  --bad-magic  the name starts with AFFB instead\n"
    "  --silent     connect and send nothing; wait until the head unit closes the connection\n"
    "  --drop-at N  abortive close (reset) of the connection before frame N\n"
    "  --reconnect MS  connect once more MS milliseconds after the connection ended (to the same\n"
    "               address; the scripted events and --drop-at apply to the first connection only)\n"
    "\n"
    "Video: 68-byte device information, then H.264 access units framed by a 12-byte header\n"
    "(PTS u64, length u32, big-endian; all ones marks the first picture after a rotation), from\n"
    "libx264 at the bit rate asked for.\n"
    "\n"
    "Phone screen (PHONE_SIM_SCREEN=phone, the default): fits SIZE (default 1280:720) in the current\n"
    "orientation, portrait first (720x1280). Sent when it changes, at most at the frame rate; 8 times\n"
    "at the frame rate after the connection is made and after each rotation; the last picture again\n"
    "every PHONE_SIM_REPEAT_MS while nothing changes. A tap (down and up within 24 px and 600 ms) acts\n"
    "where it ends. Keys act when released: back closes the menu or leaves the app, home goes home,\n"
    "menu opens or closes the menu. A dot shows where the finger is.\n"
    "Layout in phone pixels (x,y wxh) for SIZE 1280:720; other sizes scale by short side/720:\n"
    "                portrait 720x1280          landscape 1280x720\n"
    "  status bar    0,0 720x64                 0,0 1280x64        clock HH:MM\n"
    "  tile List     40,160 300x300   red       32,252 280x280     a list of 200 rows of 96 px:\n"
    "                                                              drag scrolls, a fast release flings\n"
    "  tile Draw     380,160 300x300  green     344,252 280x280    a pad that draws the finger's path\n"
    "  tile Rotate   40,520 300x300   blue      656,252 280x280    a button that turns the phone\n"
    "  tile About    380,520 300x300  amber     968,252 280x280    text about the phone\n"
    "  app bar       0,64 720x112               0,64 1280x112      in its tile's colour\n"
    "  back arrow    0,64 112x112               0,64 112x112\n"
    "  Draw's Clear  560,64 160x112             1120,64 160x112\n"
    "  content       0,176 720x1104             0,176 1280x544\n"
    "  rotate button 110,578 500x300            390,298 500x300\n"
    "  menu panel    376,72 328x384             936,72 328x384     items 96 high: Home, Rotate screen,\n"
    "                                                              Show touches, Clear drawing\n"
    "Test pattern (PHONE_SIM_SCREEN=pattern) at SIZE, at the frame rate:\n"
    "  top 5/6: left third red, middle third green, right third blue;\n"
    "  bottom 1/6: black with a moving white square.\n"
    "\n"
    "Environment:\n"
    "  PHONE_SIM_PORT         tunnel port (default 27555)\n"
    "  PHONE_SIM_NAME         device name (default \"Orvane Phone Simulator\")\n"
    "  PHONE_SIM_SIZE         W:H announced in the device information (default: the picture's size)\n"
    "  PHONE_SIM_FPS          frame rate (default 30); the phone's highest\n"
    "  PHONE_SIM_SCREEN       phone (default) or pattern\n"
    "  PHONE_SIM_REPEAT_MS    the phone repeats a still picture this often (default 250, 0 never)\n"
    "  PHONE_SIM_CLIP         Annex-B H.264 file to send (looped) instead of either\n"
    "  PHONE_SIM_LOG          progress log: connections, frames (the phone's with why: changed, burst,\n"
    "                         repeat, and when it went out: sent_ns, monotonic), 'ui:' lines for\n"
    "                         what the phone's screen did, acks, end reason\n"
    "  PHONE_SIM_CONTROL_LOG  one JSON line per control message received (with \"t_ns\")\n"
    "  PHONE_SIM_EVENTS       comma list: rotate@N (the phone turns) eos@N close@N reset@N stall@N\n"
    "                         oversize@N garbage@N close-control@N clipboard:TEXT@N notify@N short-info "
    "frames=N\n"
    "                         idle:SECONDS@N (a still screen: nothing sent for SECONDS, then on)\n"
    "                         info-bytes=N (only N bytes of the device information, then silence)\n"
    "                         ignore-control (never read the control connection)\n"
    "                         exit-at-launch | never-connect | video-only | no-hello (forward mode:\n"
    "                         no first byte): a server that misbehaves before it streams\n";

std::atomic<bool> g_stop{false};
std::mutex g_fds_mutex;
std::vector<int> g_fds; // sockets to shut down on SIGTERM

FILE* g_log = nullptr;
std::mutex g_log_mutex;

int64_t monotonic_ns()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000000000 + ts.tv_nsec;
}

void logf(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void logf(const char* fmt, ...)
{
    if (g_log == nullptr)
        return;
    std::lock_guard<std::mutex> lock(g_log_mutex);
    va_list ap;
    va_start(ap, fmt);
    vfprintf(g_log, fmt, ap);
    va_end(ap);
    fputc('\n', g_log);
    fflush(g_log);
}

void track(int fd)
{
    std::lock_guard<std::mutex> lock(g_fds_mutex);
    g_fds.push_back(fd);
    if (g_stop.load())
        shutdown(fd, SHUT_RDWR);
}

// Ends a connection without releasing its descriptor: a reader thread may still be blocked on it,
// and the descriptor is closed only after that thread has been joined.
void end_fd(int fd, bool reset = false)
{
    if (fd < 0)
        return;
    if (reset) {
        linger lg{1, 0}; // abortive close: the peer sees a reset, not an orderly end
        setsockopt(fd, SOL_SOCKET, SO_LINGER, &lg, sizeof lg);
        // A reader still blocked on the socket keeps it alive past close(), and the reset would
        // wait for it; ending the receiving side wakes it without sending anything.
        shutdown(fd, SHUT_RD);
    } else {
        shutdown(fd, SHUT_RDWR);
    }
}

void close_fd(int* fd, bool reset = false)
{
    if (*fd < 0)
        return;
    std::lock_guard<std::mutex> lock(g_fds_mutex);
    end_fd(*fd, reset);
    for (auto it = g_fds.begin(); it != g_fds.end(); ++it) {
        if (*it == *fd) {
            g_fds.erase(it);
            break;
        }
    }
    close(*fd);
    *fd = -1;
}

// SIGTERM/SIGINT are blocked in every thread and taken here, so the blocking calls of the other
// threads are ended by shutting their sockets down rather than by signal-interrupted syscalls.
void signal_thread()
{
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    int sig = 0;
    sigwait(&set, &sig);
    if (sig == SIGUSR1)
        return; // our own wake-up at exit
    g_stop = true;
    std::lock_guard<std::mutex> lock(g_fds_mutex);
    for (int fd : g_fds)
        shutdown(fd, SHUT_RDWR);
}

bool sleep_ms(int ms)
{
    for (int i = 0; i < ms / 10 && !g_stop; ++i)
        usleep(10000);
    return !g_stop;
}

bool send_all(int fd, const void* data, size_t len)
{
    const uint8_t* p = static_cast<const uint8_t*>(data);
    while (len > 0) {
        const ssize_t n = send(fd, p, len, MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        p += n;
        len -= size_t(n);
    }
    return true;
}

bool parse_size(const char* text, int* w, int* h)
{
    int a = 0, b = 0;
    char end = 0;
    if (sscanf(text, "%d:%d%c", &a, &b, &end) != 2 || a < 16 || b < 16 || a > 65535 || b > 65535)
        return false;
    *w = a;
    *h = b;
    return true;
}

int env_int(const char* name, int fallback, int lo, int hi, bool* ok)
{
    const char* v = getenv(name);
    if (v == nullptr || *v == '\0')
        return fallback;
    char* end = nullptr;
    const long n = strtol(v, &end, 10);
    if (*end != '\0' || n < lo || n > hi) {
        fprintf(stderr, "phone-sim: %s must be a number from %d to %d\n", name, lo, hi);
        *ok = false;
        return fallback;
    }
    return int(n);
}

struct Config {
    bool wifi = false;
    bool tunnel_forward = false;
    int port = 27555;
    std::string host = "127.0.0.1";
    sim::SourceConfig source;
    bool info_given = false; // announce info_width x info_height instead of the picture's size
    int info_width = 0, info_height = 0;
    std::string name = "Orvane Phone Simulator";
    std::string control_log;
    sim::Script script;
    bool bad_magic = false;
    int reconnect_ms = -1;
    bool discover = false;
    int discover_timeout_ms = 30000;
    bool silent = false;
    long drop_at = -1;
};

// Reads the head unit's control messages, logs each one as a JSON line the moment it is complete
// (a message may arrive in pieces) and hands it to the phone's screen.
void control_reader(int fd, std::string log_path, sim::FrameSource* source)
{
    int log_fd = -1;
    if (!log_path.empty())
        log_fd = open(log_path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    std::vector<uint8_t> pending;
    uint8_t buf[4096];
    unsigned count = 0;
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            logf("control closed (%u messages)", count);
            break;
        }
        const int64_t t = monotonic_ns();
        pending.insert(pending.end(), buf, buf + n);
        size_t off = 0;
        long used;
        sim::ControlRecord rec;
        while ((used = sim::decode_control(pending.data() + off, pending.size() - off, &rec)) > 0) {
            off += size_t(used);
            ++count;
            const std::string line = sim::control_to_json(rec, "\"t_ns\":" + std::to_string(t)) + "\n";
            if (log_fd >= 0 && write(log_fd, line.data(), line.size()) < 0)
                logf("control log write failed: %s", strerror(errno));
            source->control(rec);
        }
        pending.erase(pending.begin(), pending.begin() + long(off));
        if (used < 0) {
            logf("control: unknown message type %u, stop reading", pending[0]);
            if (log_fd >= 0) {
                const std::string line = "{\"type\":\"unknown\",\"value\":" + std::to_string(pending[0]) +
                                         ",\"t_ns\":" + std::to_string(t) + "}\n";
                if (write(log_fd, line.data(), line.size()) < 0)
                    logf("control log write failed: %s", strerror(errno));
            }
            break;
        }
    }
    if (log_fd >= 0)
        close(log_fd);
}

// Counts the head unit's acknowledge bytes and notices when it goes away (also when the simulator
// is told to stop: that shuts the socket down).
void video_back_reader(int fd, std::atomic<bool>* peer_gone, const std::atomic<unsigned>* sent,
                       sim::FrameSource* source)
{
    uint8_t buf[64];
    unsigned acks = 0;
    for (;;) {
        const ssize_t n = recv(fd, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
        for (ssize_t i = 0; i < n; ++i) {
            if (buf[i] == 0x01)
                logf("ack %u after %u frames sent", ++acks, sent->load());
            else
                logf("unexpected byte 0x%02x on the video connection", buf[i]);
        }
    }
    logf("video connection ended (%u acks)", acks);
    *peer_gone = true;
    source->interrupt();
}

enum class End { Terminated, PeerGone, Closed, Error };

// Keeps the connections open until the head unit leaves or we are told to stop.
End idle(const std::atomic<bool>& peer_gone, const char* why)
{
    logf("idle: %s", why);
    while (!g_stop && !peer_gone)
        usleep(10000);
    return g_stop ? End::Terminated : End::PeerGone;
}

// Sends nothing more and waits for the head unit to give up on the connection.
End wait_for_close(int video, const char* what)
{
    const int64_t start = monotonic_ns();
    logf("%s: sending nothing", what);
    uint8_t buf[64];
    for (;;) {
        const ssize_t n = recv(video, buf, sizeof buf, 0);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            break;
    }
    if (g_stop)
        return End::Terminated;
    logf("%s: head unit closed the connection after %" PRId64 " ms", what,
         (monotonic_ns() - start) / 1000000);
    return End::PeerGone;
}

End stream(const Config& cfg, sim::FrameSource* source, int* video, int* control)
{
    std::atomic<bool> peer_gone{false};
    std::atomic<unsigned> sent{0};
    const std::string name = (cfg.wifi ? (cfg.bad_magic ? "AFFB" : "AFFA") : "") + cfg.name;
    int info_width = cfg.info_width, info_height = cfg.info_height;
    if (!cfg.info_given)
        source->size(&info_width, &info_height);
    const std::vector<uint8_t> info =
        sim::encode_device_info(name, uint16_t(info_width), uint16_t(info_height));

    if (cfg.script.info_bytes >= 0) {
        send_all(*video, info.data(), size_t(cfg.script.info_bytes));
        logf("device information cut at %ld of 68 bytes", cfg.script.info_bytes);
        return wait_for_close(*video, "after the cut device information");
    }
    if (cfg.script.short_info) {
        send_all(*video, info.data(), 30);
        logf("short device information sent (30 of 68 bytes), closing");
        return End::Closed;
    }
    if (!send_all(*video, info.data(), info.size())) {
        logf("device information not sent: %s", strerror(errno));
        return g_stop ? End::Terminated : End::Error;
    }
    logf("device information sent: \"%s\" %dx%d", name.c_str(), info_width, info_height);

    std::string error;
    if (!source->begin(&error)) {
        logf("no stream: %s", error.c_str());
        fprintf(stderr, "phone-sim: %s\n", error.c_str());
        return End::Error;
    }
    std::thread back(video_back_reader, *video, &peer_gone, &sent, source);
    std::thread ctl;
    bool control_ended = false;
    bool reset = false;
    if (*control >= 0 && !cfg.script.ignore_control)
        ctl = std::thread(control_reader, *control, cfg.control_log, source);

    std::mt19937 rng(12345);
    End end = End::Error;
    sim::Frame frame;
    for (unsigned n = 0;; ++n) {
        if (g_stop) {
            end = End::Terminated;
            break;
        }
        if (peer_gone) {
            end = End::PeerGone;
            break;
        }
        if (cfg.script.frames >= 0 && long(n) >= cfg.script.frames) {
            end = idle(peer_gone, "frame limit reached");
            break;
        }
        if (!source->wait()) {
            end = g_stop ? End::Terminated : End::PeerGone;
            break;
        }
        bool finished = false;
        uint8_t header[sim::kPacketHeaderSize];
        for (const sim::Event& ev : cfg.script.events) {
            if (ev.frame != n || finished)
                continue;
            switch (ev.kind) {
            case sim::EventKind::Rotate:
                source->rotate();
                break;
            case sim::EventKind::Clipboard:
            case sim::EventKind::Notify: {
                const std::vector<uint8_t> msg = ev.kind == sim::EventKind::Clipboard
                                                     ? sim::encode_clipboard(ev.text)
                                                     : sim::encode_notify();
                const bool ok = *control >= 0 && !control_ended && send_all(*control, msg.data(), msg.size());
                logf("%s at frame %u %s", ev.kind == sim::EventKind::Clipboard ? "clipboard" : "notify", n,
                     ok ? "sent" : "not sent");
                break;
            }
            case sim::EventKind::CloseControl:
                logf("closing the control connection at frame %u", n);
                end_fd(*control);
                control_ended = true;
                break;
            case sim::EventKind::Eos:
                sim::encode_packet_header(header, uint64_t(n) * 1000000 / unsigned(cfg.source.fps), 0);
                send_all(*video, header, sizeof header);
                logf("end of stream sent at frame %u", n);
                end = idle(peer_gone, "after end of stream");
                finished = true;
                break;
            case sim::EventKind::Close:
            case sim::EventKind::Reset:
                logf("%s at frame %u", ev.kind == sim::EventKind::Close ? "closing" : "resetting", n);
                reset = ev.kind == sim::EventKind::Reset;
                end_fd(*video, reset);
                end_fd(*control, reset);
                end = End::Closed;
                finished = true;
                break;
            case sim::EventKind::Idle:
                logf("idle for %s s at frame %u", ev.text.c_str(), n);
                sleep_ms(atoi(ev.text.c_str()) * 1000);
                logf("idle period over");
                break;
            case sim::EventKind::Stall:
                end = idle(peer_gone, "stalled");
                finished = true;
                break;
            case sim::EventKind::Oversize:
                sim::encode_packet_header(header, n, 0x200000);
                send_all(*video, header, sizeof header);
                logf("oversized header (length 2097152) sent at frame %u", n);
                end = idle(peer_gone, "after oversized header");
                finished = true;
                break;
            case sim::EventKind::Garbage: {
                std::vector<uint8_t> junk(4096);
                for (uint8_t& b : junk)
                    b = uint8_t(rng());
                send_all(*video, junk.data(), junk.size());
                logf("4096 random bytes sent at frame %u", n);
                end = idle(peer_gone, "after garbage");
                finished = true;
                break;
            }
            }
        }
        if (finished)
            break;

        if (!source->next(n, &frame, &error)) {
            logf("no frame: %s", error.c_str());
            fprintf(stderr, "phone-sim: %s\n", error.c_str());
            end = End::Error;
            break;
        }
        const std::vector<uint8_t>& unit = frame.unit;
        sim::encode_packet_header(header, frame.rotation ? sim::kRotationPts : frame.pts,
                                  uint32_t(unit.size()));
        if (!send_all(*video, header, sizeof header) || !send_all(*video, unit.data(), unit.size())) {
            end = g_stop ? End::Terminated : End::PeerGone;
            break;
        }
        sent = n + 1;
        // The phone's own pictures carry when they went out, so a touch's answer can be timed on
        // the phone's clock (its control log gives when the touch was read).
        if (frame.reason != nullptr)
            logf("frame %u %zu bytes%s (%s) sent_ns %" PRId64, n, unit.size(),
                 frame.rotation ? " rotation" : "", frame.reason, monotonic_ns());
        else
            logf("frame %u %zu bytes%s", n, unit.size(), frame.rotation ? " rotation" : "");
    }

    // Wake the readers and collect them before the descriptors go away (a reset must not be
    // preceded by an orderly end, so it only ends the receiving side).
    end_fd(*video, reset);
    end_fd(*control, reset);
    back.join();
    if (ctl.joinable())
        ctl.join();
    if (end == End::Closed) {
        close_fd(video, reset);
        close_fd(control, reset);
    }
    return end;
}

int connect_to(const std::string& host, int port, int rcvbuf = 0)
{
    addrinfo hints{};
    hints.ai_family = AF_INET;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* res = nullptr;
    if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res) != 0 || res == nullptr)
        return -1;
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd >= 0) {
        track(fd);
        // Set before the connection exists, so the window offered to the head unit stays small.
        if (rcvbuf > 0)
            setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &rcvbuf, sizeof rcvbuf);
        if (connect(fd, res->ai_addr, res->ai_addrlen) != 0)
            close_fd(&fd);
    }
    freeaddrinfo(res);
    return fd;
}

// A few tries: the head unit's side may still be coming up.
int connect_retry(const std::string& host, int port, const char* what, int rcvbuf = 0)
{
    for (int i = 0; i < 50 && !g_stop; ++i) {
        int fd = connect_to(host, port, rcvbuf);
        if (fd >= 0) {
            int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            logf("%s connected to %s:%d", what, host.c_str(), port);
            return fd;
        }
        sleep_ms(100);
    }
    logf("%s: cannot connect to %s:%d", what, host.c_str(), port);
    return -1;
}

int listen_on(int port)
{
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0)
        return -1;
    track(fd);
    int one = 1;
    setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_port = htons(uint16_t(port));
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 2) != 0) {
        fprintf(stderr, "phone-sim: cannot listen on 127.0.0.1:%d: %s\n", port, strerror(errno));
        close_fd(&fd);
        return -1;
    }
    return fd;
}

int accept_one(int listener, const char* what)
{
    const int fd = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd >= 0) {
        track(fd);
        logf("%s connection accepted", what);
    }
    return fd;
}

const char* end_text(End e)
{
    switch (e) {
    case End::Terminated:
        return "terminated";
    case End::PeerGone:
        return "head unit closed the connection";
    case End::Closed:
        return "closed as scripted";
    case End::Error:
        return "error";
    }
    return "?";
}

int run_server(Config& cfg, sim::FrameSource& source)
{
    const std::string& launch = cfg.script.launch;
    if (launch == "exit-at-launch") {
        logf("end: exit at launch");
        return 1;
    }
    if (launch == "never-connect") {
        logf("never connecting");
        while (!g_stop)
            usleep(10000);
        logf("end: terminated");
        return 0;
    }
    std::string error;
    if (!cfg.script.short_info && cfg.script.info_bytes < 0 && !source.open(&error)) {
        fprintf(stderr, "phone-sim: %s\n", error.c_str());
        return 1;
    }
    int video = -1, control = -1;
    End end = End::Error;
    if (!cfg.tunnel_forward) {
        video = connect_retry(cfg.host, cfg.port, "video");
        if (video >= 0 && launch == "video-only")
            end = wait_for_close(video, "video only");
        else if (video >= 0)
            control = connect_retry(cfg.host, cfg.port, "control", cfg.script.ignore_control ? 4096 : 0);
    } else {
        int listener = listen_on(cfg.port);
        if (listener < 0)
            return 1;
        logf("listening on 127.0.0.1:%d", cfg.port);
        video = accept_one(listener, "video");
        // The first byte tells the head unit the server itself is there, not only the tunnel.
        const uint8_t hello = 0;
        if (video >= 0 && launch == "no-hello")
            end = wait_for_close(video, "no first byte");
        else if (video >= 0 && !send_all(video, &hello, 1))
            close_fd(&video);
        else if (video >= 0 && launch == "video-only")
            end = wait_for_close(video, "video only");
        else if (video >= 0)
            control = accept_one(listener, "control");
        close_fd(&listener);
    }
    // A misbehaving server's wait may already be over; otherwise stream.
    if (end == End::Error && video >= 0 && control >= 0)
        end = stream(cfg, &source, &video, &control);
    else if (end == End::Error && g_stop)
        end = End::Terminated;
    close_fd(&video);
    close_fd(&control);
    logf("end: %s", end_text(end));
    return end == End::Error ? 1 : 0;
}

int run_wifi(Config& cfg, sim::FrameSource& source)
{
    std::string error;
    if (!cfg.silent && !cfg.script.short_info && !source.open(&error)) {
        fprintf(stderr, "phone-sim: %s\n", error.c_str());
        return 1;
    }
    if (cfg.discover) {
        sim::Discovered found;
        if (!sim::discover_service("_qvo_mirroring._tcp", cfg.discover_timeout_ms, g_stop, &found, &error)) {
            logf("discovery failed: %s", error.c_str());
            fprintf(stderr, "phone-sim: discovery failed: %s\n", error.c_str());
            logf("end: %s", g_stop ? "terminated" : "error");
            return g_stop ? 0 : 1;
        }
        logf("discovered \"%s\" at %s port %d address %s", found.instance.c_str(), found.host_target.c_str(),
             found.port, found.address.c_str());
        logf("txt %s", sim::txt_to_text(found).c_str());
        for (const char* key : {"deviceid", "width", "height", "maxFPS"}) {
            bool present = false;
            for (const auto& item : found.txt)
                present = present || item.first == key;
            if (!present) {
                logf("discovery failed: the TXT record has no %s", key);
                fprintf(stderr, "phone-sim: the TXT record has no %s\n", key);
                logf("end: error");
                return 1;
            }
        }
        cfg.host = found.address;
        cfg.port = found.port;
    }
    End end = End::Error;
    for (int round = 0; round < 2; ++round) {
        int video = connect_retry(cfg.host, cfg.port, "video");
        int control = -1;
        if (video < 0)
            end = g_stop ? End::Terminated : End::Error;
        else if (cfg.silent)
            end = wait_for_close(video, "silent");
        else
            end = stream(cfg, &source, &video, &control);
        close_fd(&video);
        logf("session end: %s", end_text(end));
        if (end == End::Terminated || end == End::Error || cfg.reconnect_ms < 0 || round == 1)
            break;
        // The drop is the first connection's; the phone that comes back streams plainly.
        cfg.script.events.clear();
        logf("reconnecting in %d ms", cfg.reconnect_ms);
        if (!sleep_ms(cfg.reconnect_ms)) {
            end = End::Terminated;
            break;
        }
    }
    logf("end: %s", end_text(end));
    return end == End::Error ? 1 : 0;
}

int bad_usage(const char* why)
{
    fprintf(stderr, "phone-sim: %s\n%s", why, kUsage);
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc < 2 || strcmp(argv[1], "--help") == 0 || strcmp(argv[1], "-h") == 0) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? 2 : 0;
    }

    Config cfg;
    bool ok = true;
    int size_w = 0, size_h = 0;
    bool size_given = false;
    if (strcmp(argv[1], "com.qvo.alink.Server") == 0) {
        if (argc != 8)
            return bad_usage("the server takes exactly 6 arguments after the class name");
        if (strcmp(argv[2], "-") != 0) {
            if (!parse_size(argv[2], &size_w, &size_h))
                return bad_usage("SIZE must be W:H (16..65535) or -");
            size_given = true;
        }
        char* end = nullptr;
        cfg.source.bit_rate = strtoll(argv[3], &end, 10);
        if (*end != '\0' || cfg.source.bit_rate <= 0)
            return bad_usage("BITRATE must be a positive decimal number");
        if (strcmp(argv[4], "true") != 0 && strcmp(argv[4], "false") != 0)
            return bad_usage("TUNNEL_FORWARD must be true or false");
        cfg.tunnel_forward = strcmp(argv[4], "true") == 0;
        if (strcmp(argv[7], "true") != 0 && strcmp(argv[7], "false") != 0)
            return bad_usage("FLAG must be true or false");
    } else if (strcmp(argv[1], "wifi") == 0) {
        cfg.wifi = true;
        bool have_target = false;
        for (int i = 2; i < argc; ++i) {
            const std::string a = argv[i];
            if (a == "--connect" && i + 1 < argc) {
                const std::string t = argv[++i];
                const size_t colon = t.rfind(':');
                char* end = nullptr;
                const long p = colon == std::string::npos ? 0 : strtol(t.c_str() + colon + 1, &end, 10);
                if (p < 1 || p > 65535 || *end != '\0')
                    return bad_usage("--connect takes HOST:PORT");
                cfg.host = t.substr(0, colon);
                cfg.port = int(p);
                have_target = true;
            } else if (a == "--discover") {
                cfg.discover = true;
                have_target = true;
                if (i + 1 < argc && argv[i + 1][0] != '-') {
                    char* end = nullptr;
                    const long seconds = strtol(argv[++i], &end, 10);
                    if (*end != '\0' || seconds < 1 || seconds > 3600)
                        return bad_usage("--discover takes seconds from 1 to 3600");
                    cfg.discover_timeout_ms = int(seconds * 1000);
                }
            } else if (a == "--silent") {
                cfg.silent = true;
            } else if (a == "--drop-at" && i + 1 < argc) {
                char* end = nullptr;
                const long frame = strtol(argv[++i], &end, 10);
                if (*end != '\0' || frame < 0)
                    return bad_usage("--drop-at takes a frame number");
                cfg.drop_at = frame;
            } else if (a == "--bad-magic") {
                cfg.bad_magic = true;
            } else if (a == "--reconnect" && i + 1 < argc) {
                char* end = nullptr;
                cfg.reconnect_ms = int(strtol(argv[++i], &end, 10));
                if (*end != '\0' || cfg.reconnect_ms < 0)
                    return bad_usage("--reconnect takes milliseconds");
            } else {
                return bad_usage(("unknown Wi-Fi option " + a).c_str());
            }
        }
        if (!have_target)
            return bad_usage("wifi needs --connect HOST:PORT or --discover");
    } else {
        return bad_usage("unknown mode");
    }

    if (size_given) {
        cfg.source.width = size_w;
        cfg.source.height = size_h;
    }
    if (const char* s = getenv("PHONE_SIM_SIZE"); s != nullptr && *s != '\0') {
        if (!parse_size(s, &cfg.info_width, &cfg.info_height))
            return bad_usage("PHONE_SIM_SIZE must be W:H");
        cfg.info_given = true;
    }
    if (!cfg.wifi)
        cfg.port = env_int("PHONE_SIM_PORT", 27555, 1, 65535, &ok);
    cfg.source.fps = env_int("PHONE_SIM_FPS", 30, 1, 240, &ok);
    cfg.source.repeat_ms = env_int("PHONE_SIM_REPEAT_MS", 250, 0, 3600000, &ok);
    if (!ok)
        return bad_usage("bad environment");
    if (const char* s = getenv("PHONE_SIM_SCREEN"); s != nullptr && *s != '\0') {
        if (strcmp(s, "phone") != 0 && strcmp(s, "pattern") != 0)
            return bad_usage("PHONE_SIM_SCREEN must be phone or pattern");
        cfg.source.screen = strcmp(s, "phone") == 0 ? sim::Screen::Phone : sim::Screen::Pattern;
    }
    if (const char* s = getenv("PHONE_SIM_NAME"))
        cfg.name = s;
    if (const char* s = getenv("PHONE_SIM_CLIP"))
        cfg.source.clip = s;
    if (const char* s = getenv("PHONE_SIM_CONTROL_LOG"))
        cfg.control_log = s;
    std::string script_error;
    if (const char* s = getenv("PHONE_SIM_EVENTS");
        s != nullptr && !sim::parse_script(s, &cfg.script, &script_error))
        return bad_usage(("PHONE_SIM_EVENTS: " + script_error).c_str());
    if (cfg.drop_at >= 0)
        cfg.script.events.push_back({sim::EventKind::Reset, unsigned(cfg.drop_at), std::string()});
    if (const char* s = getenv("PHONE_SIM_LOG"); s != nullptr && *s != '\0') {
        g_log = fopen(s, "a");
        if (g_log == nullptr) {
            fprintf(stderr, "phone-sim: cannot open %s: %s\n", s, strerror(errno));
            return 1;
        }
    }

    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGUSR1);
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
    std::thread signals(signal_thread);

    sim::FrameSource source(cfg.source, [](const std::string& line) { logf("%s", line.c_str()); });
    int width = 0, height = 0;
    source.size(&width, &height);
    logf("start: %s mode, port %d, picture %dx%d, info %dx%d, %d fps, %s", cfg.wifi ? "wifi" : "server",
         cfg.port, width, height, cfg.info_given ? cfg.info_width : width,
         cfg.info_given ? cfg.info_height : height, cfg.source.fps, source.describe());
    const int rc = cfg.wifi ? run_wifi(cfg, source) : run_server(cfg, source);

    if (!g_stop)
        pthread_kill(signals.native_handle(), SIGUSR1);
    signals.join();
    if (g_log != nullptr)
        fclose(g_log);
    return rc;
}
