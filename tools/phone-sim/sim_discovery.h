// The phone app's side of DNS-SD: find the head unit's mirroring service, read its TXT record and
// resolve its host to an IPv4 address, through the dns_sd.h client library.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace sim {

struct Discovered {
    std::string instance;    // e.g. "Mirroring"
    std::string host_target; // e.g. "orvane-hu.local."
    int port = 0;            // host order
    std::vector<std::pair<std::string, std::string>> txt;
    std::string address; // dotted IPv4
};

// Browses for service_type, resolves the first instance found and its host's IPv4 address.
// Gives up after timeout_ms or when stop becomes true. On failure returns false with *error set.
bool discover_service(const char* service_type, int timeout_ms, const std::atomic<bool>& stop,
                      Discovered* out, std::string* error);

// "key=value,key=value" in the record's order, for logs.
std::string txt_to_text(const Discovered& d);

} // namespace sim
