// The device files of the video path go through this shim: on the board it is the system calls,
// on a development machine it emulates the framebuffer, the allocator and /dev/mem. Main thread
// (link start and teardown, while no stream runs); nothing here blocks.
#pragma once

#include <cstddef>
#include <sys/types.h>

int platform_open(const char* path, int flags);
int platform_ioctl(int fd, unsigned long request, void* arg);
void* platform_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);
int platform_munmap(void* addr, size_t length);
int platform_close(int fd);
