// The phone link's server side: in USB mode the server program on the phone (pushed and launched
// through adb) with its tunnel and its video and control connections; in Wi-Fi mode the listening
// socket and its accept thread.
#pragma once

#include <cstdint>
#include <sys/types.h>

class NetAcceptThread;

constexpr uint16_t PHONE_SERVER_PORT = 27555;
constexpr const char* PHONE_SERVER_JAR_LOCAL = "/qvoprofile/qvoalink-server.jar";
constexpr const char* PHONE_SERVER_JAR_REMOTE = "/data/local/tmp/qvoalink-server.jar";
constexpr const char* PHONE_SERVER_SOCKET_NAME = "androidlink";
constexpr const char* PHONE_SERVER_CLASS = "com.qvo.alink.Server";
// How long the launched server has to make (reverse) or answer (forward) both connections.
constexpr int PHONE_SERVER_CONNECT_MS = 12000;

// The main thread owns the record. On a Wi-Fi link the accept thread shares two of its fields:
// server_socket (it accepts on it) and video_socket (it stores a phone's connection there and may
// replace a dead one). Both are read and written only through base/fd.h's fd_load and fd_store
// (phone_server_video_socket from outside this module). A connection some thread reads is shut
// down first and closed only after that thread is joined: the main thread closes the record's at
// phone_server_close, and a replaced one once its stream is joined; the accept thread closes only
// a newcomer it turns away.
struct PhoneServer {
    char* serial;                   // owned heap copy, null for the single attached device
    pid_t process;                  // adb shell child running the server, -1 for none
    int server_socket;              // listening socket (USB reverse: 127.0.0.1, Wi-Fi: any address)
    int video_socket;               // first connection: video
    int udp_socket;                 // Wi-Fi datagram socket
    int control_socket;             // second connection: control messages
    uint16_t local_port;            // head unit side port of the tunnel
    bool tunnel_enabled;            // an adb reverse/forward registration must be removed
    bool tunnel_forward;            // "adb forward" (we connect out) rather than "adb reverse"
    NetAcceptThread* accept_thread; // Wi-Fi accept thread
};

struct ServerParams {
    const char* option_arg; // 9th server argument, "-" when null
    uint16_t local_port;
    const char* size_arg; // 6th server argument, "-" when null
    uint32_t bit_rate;    // 7th server argument
    bool option_flag;     // 11th server argument
};

void phone_server_init(PhoneServer* server);
bool phone_server_start(PhoneServer* server, const char* serial, const ServerParams* params);
bool phone_server_connect(PhoneServer* server);
// Main thread. Ends the phone's server and its tunnel, closes the listener and joins the accept
// thread, and shuts the connections down, which releases the threads that read them.
void phone_server_stop(PhoneServer* server);
// Main thread, once the threads that read the connections have been joined: closes them.
void phone_server_close(PhoneServer* server);
bool phone_server_disable_tunnel(const char* serial, uint16_t local_port, bool forward);
void socket_close_guarded(int* fd);

// Any thread: the video connection now (the accept thread may replace it), -1 for none.
int phone_server_video_socket(const PhoneServer* server);

// Wi-Fi mode.
bool phone_server_start_wifi(PhoneServer* server);
bool phone_server_open_udp(PhoneServer* server);
