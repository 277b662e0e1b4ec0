// The 68-byte record that opens every video connection: a 64-byte name and the picture size.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr int DEVICE_INFO_SIZE = 68;
constexpr int DEVICE_NAME_FIELD = 64;

// Main thread: reads the record from a new video connection; blocks up to the receive time-out the
// caller set on the socket (3 s on USB, 10 s on Wi-Fi).
bool device_read_info(int socket, char* name, int* size);
// Decodes a received record (what device_read_info does after the read).
void device_info_parse(const uint8_t* record, char* name, int* size);
// Main thread: copies the name of the last record device_read_info read (for the link's
// diagnostics) and returns how many records it has read, so a reader can tell a new phone from the
// last one.
uint64_t device_info_last_name(char* name, size_t size);
