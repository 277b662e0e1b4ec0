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

// String helpers of the same layer.
size_t str_copy_limited(char* dst, const char* src, size_t n);
size_t str_join(char* dst, const char* const* tokens, char sep, size_t n);
char* str_quote(const char* s);
