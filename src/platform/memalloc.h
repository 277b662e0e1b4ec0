// The contiguous-memory allocator device and its requests.
#pragma once

#include <cstdint>

constexpr const char* MEMALLOC_DEVICE = "/tmp/dev/memalloc";
constexpr const char* MEM_DEVICE = "/dev/mem";
constexpr const char* FB_DEVICE = "/dev/fb4";

struct memalloc_request {
    uint32_t physical_address; // out: 0 means no memory
    uint32_t size;             // in
};

constexpr unsigned long MEMALLOC_IOCTL_ALLOC = 0xC0046B01UL; // memalloc_request*
constexpr unsigned long MEMALLOC_IOCTL_FREE = 0x40046B02UL;  // uint32_t* physical address
