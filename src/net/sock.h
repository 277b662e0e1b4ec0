// IPv4 socket primitives shared by the server management, the Wi-Fi listener, the video reader
// and the control channel. Sockets are plain descriptors (-1 for none); addresses and ports are
// in host byte order.
#pragma once

#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr uint32_t SOCK_ADDR_LOOPBACK = 0x7F000001;
constexpr uint32_t SOCK_ADDR_ANY = 0;

int sock_connect(uint32_t addr, uint16_t port);
int sock_listen(uint32_t addr, uint16_t port, int backlog);
int sock_bind_udp(uint32_t addr, uint16_t port);
int sock_accept(int sock);
ssize_t sock_recv(int sock, void* buf, size_t len);
ssize_t sock_recv_all(int sock, void* buf, size_t len);
ssize_t sock_send_all(int sock, const void* buf, size_t len);
bool sock_shutdown(int sock, int how);
bool sock_close(int sock);
// Receive time-out in milliseconds; 0 waits without end.
void sock_set_recv_timeout(int sock, int ms);
// The receive time-out last set on this descriptor with sock_set_recv_timeout (0: none).
int sock_recv_timeout(int sock);
// TCP keepalive and a limit on unacknowledged data: a peer that vanishes without a word (out of
// radio range, no FIN, no RST) ends the connection within SOCK_LIVENESS_MS, while a live peer
// that merely has nothing to send keeps it for good.
constexpr int SOCK_LIVENESS_MS = 15000;
void sock_set_liveness(int sock);
