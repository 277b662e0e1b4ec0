// The DNS-SD announcement of the Wi-Fi mirroring service and the device identity behind it.
#pragma once

#include <cstdint>
#include <dns_sd.h>
#include <string>

constexpr int DNSSD_NO_MEMORY = 2;
constexpr const char* DNSSD_SERVICE_TYPE = "_qvo_mirroring._tcp";

struct dnssd {
    decltype(&DNSServiceRegister) service_register;
    decltype(&DNSServiceRefDeallocate) service_ref_deallocate;
    decltype(&TXTRecordCreate) txt_create;
    decltype(&TXTRecordSetValue) txt_set_value;
    decltype(&TXTRecordGetLength) txt_get_length;
    decltype(&TXTRecordGetBytesPtr) txt_get_bytes_ptr;
    decltype(&TXTRecordDeallocate) txt_deallocate;
    TXTRecordRef txt;
    DNSServiceRef service;
    char* name;
    uint32_t name_length;
    char* device_id;
    uint32_t device_id_length;
    bool txt_created; // the TXT record holds the library's buffer
};

// Main thread, all four. Registering starts the DNS-SD library's own thread (under WorkerSignalMask,
// so it takes no signal), which lives until the record is destroyed; nothing here blocks for long.
dnssd* dnssd_create(const char* name, uint32_t name_length, const char* device_id, uint32_t device_id_length,
                    int* error);
int dnssd_register_mirroring(dnssd* d, uint16_t port, const char* width, const char* height,
                             const char* max_fps);
void dnssd_unregister_mirroring(dnssd* d);
void dnssd_destroy(dnssd* d);

// MAC address text of the Wi-Fi interface (ORVANE_WIFI_INTERFACE, else the platform's, else the first
// wireless one, else the first one up) or of the USB network interface (usb0); an empty text when
// there is none. Main thread.
std::string find_mac(bool wifi);
