// On the head unit the device files are real: the shim is the system calls themselves.
#include "platform/device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

int platform_open(const char* path, int flags)
{
    return ::open(path, flags);
}

int platform_ioctl(int fd, unsigned long request, void* arg)
{
    return ::ioctl(fd, request, arg);
}

void* platform_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset)
{
    return ::mmap(addr, length, prot, flags, fd, offset);
}

int platform_munmap(void* addr, size_t length)
{
    return ::munmap(addr, length);
}

int platform_close(int fd)
{
    return ::close(fd);
}
