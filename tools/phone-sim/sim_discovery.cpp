#include "sim_discovery.h"

#include <arpa/inet.h>
#include <cstring>
#include <ctime>
#include <dns_sd.h>
#include <sys/select.h>

namespace sim {

namespace {

int64_t now_ms()
{
    timespec ts;
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return int64_t(ts.tv_sec) * 1000 + ts.tv_nsec / 1000000;
}

struct Found {
    bool done = false;
    DNSServiceErrorType error = kDNSServiceErr_NoError;
    // browse
    std::string name, type, domain;
    uint32_t interface = 0;
    // resolve
    std::string host;
    int port = 0;
    std::vector<std::pair<std::string, std::string>> txt;
    // address query
    std::string address;
};

void DNSSD_API on_browse(DNSServiceRef, DNSServiceFlags flags, uint32_t interface, DNSServiceErrorType error,
                         const char* name, const char* type, const char* domain, void* context)
{
    Found* f = static_cast<Found*>(context);
    if (f->done)
        return;
    if (error != kDNSServiceErr_NoError) {
        f->error = error;
        f->done = true;
        return;
    }
    if ((flags & kDNSServiceFlagsAdd) == 0)
        return; // a removal of something we have not picked
    f->name = name;
    f->type = type;
    f->domain = domain;
    f->interface = interface;
    f->done = true;
}

void DNSSD_API on_resolve(DNSServiceRef, DNSServiceFlags, uint32_t, DNSServiceErrorType error, const char*,
                          const char* host, uint16_t port, uint16_t txt_length, const unsigned char* txt,
                          void* context)
{
    Found* f = static_cast<Found*>(context);
    if (f->done)
        return;
    f->done = true;
    if (error != kDNSServiceErr_NoError) {
        f->error = error;
        return;
    }
    f->host = host;
    f->port = ntohs(port);
    const uint16_t count = TXTRecordGetCount(txt_length, txt);
    for (uint16_t i = 0; i < count; ++i) {
        char key[256];
        uint8_t value_length = 0;
        const void* value = nullptr;
        if (TXTRecordGetItemAtIndex(txt_length, txt, i, sizeof key, key, &value_length, &value) !=
            kDNSServiceErr_NoError)
            continue;
        f->txt.emplace_back(key, value != nullptr ? std::string(static_cast<const char*>(value), value_length)
                                                  : std::string());
    }
}

void DNSSD_API on_address(DNSServiceRef, DNSServiceFlags flags, uint32_t, DNSServiceErrorType error,
                          const char*, uint16_t type, uint16_t, uint16_t length, const void* data, uint32_t,
                          void* context)
{
    Found* f = static_cast<Found*>(context);
    if (f->done)
        return;
    if (error != kDNSServiceErr_NoError) {
        f->error = error;
        f->done = true;
        return;
    }
    if ((flags & kDNSServiceFlagsAdd) == 0 || type != kDNSServiceType_A || length != 4)
        return;
    char text[INET_ADDRSTRLEN];
    if (inet_ntop(AF_INET, data, text, sizeof text) == nullptr)
        return;
    f->address = text;
    f->done = true;
}

// Feeds the library's replies to the callbacks until one of them has finished, the deadline has
// passed or we are told to stop.
bool run_until_done(DNSServiceRef ref, Found* f, int64_t deadline, const std::atomic<bool>& stop,
                    const char* what, std::string* error)
{
    const int fd = DNSServiceRefSockFD(ref);
    while (!f->done) {
        if (stop) {
            *error = std::string(what) + ": stopped";
            return false;
        }
        const int64_t left = deadline - now_ms();
        if (left <= 0) {
            *error = std::string(what) + ": nothing within the time limit";
            return false;
        }
        fd_set set;
        FD_ZERO(&set);
        FD_SET(fd, &set);
        timeval slice{0, int(std::min<int64_t>(left, 100) * 1000)};
        const int n = select(fd + 1, &set, nullptr, nullptr, &slice);
        if (n < 0 && errno != EINTR) {
            *error = std::string(what) + ": select: " + strerror(errno);
            return false;
        }
        if (n > 0) {
            const DNSServiceErrorType e = DNSServiceProcessResult(ref);
            if (e != kDNSServiceErr_NoError) {
                *error = std::string(what) + ": DNS-SD error " + std::to_string(e);
                return false;
            }
        }
    }
    if (f->error != kDNSServiceErr_NoError) {
        *error = std::string(what) + ": DNS-SD error " + std::to_string(f->error);
        return false;
    }
    return true;
}

} // namespace

bool discover_service(const char* service_type, int timeout_ms, const std::atomic<bool>& stop,
                      Discovered* out, std::string* error)
{
    const int64_t deadline = now_ms() + timeout_ms;
    Found browse;
    DNSServiceRef ref = nullptr;
    DNSServiceErrorType e = DNSServiceBrowse(&ref, 0, 0, service_type, nullptr, on_browse, &browse);
    if (e != kDNSServiceErr_NoError) {
        *error = "browse: cannot reach the DNS-SD daemon (error " + std::to_string(e) + ")";
        return false;
    }
    bool ok = run_until_done(ref, &browse, deadline, stop, "browse", error);
    DNSServiceRefDeallocate(ref);
    if (!ok)
        return false;

    Found resolve;
    e = DNSServiceResolve(&ref, 0, browse.interface, browse.name.c_str(), browse.type.c_str(),
                          browse.domain.c_str(), on_resolve, &resolve);
    if (e != kDNSServiceErr_NoError) {
        *error = "resolve: error " + std::to_string(e);
        return false;
    }
    ok = run_until_done(ref, &resolve, deadline, stop, "resolve", error);
    DNSServiceRefDeallocate(ref);
    if (!ok)
        return false;

    Found address;
    e = DNSServiceQueryRecord(&ref, 0, browse.interface, resolve.host.c_str(), kDNSServiceType_A,
                              kDNSServiceClass_IN, on_address, &address);
    if (e != kDNSServiceErr_NoError) {
        *error = "address of " + resolve.host + ": error " + std::to_string(e);
        return false;
    }
    ok = run_until_done(ref, &address, deadline, stop, ("address of " + resolve.host).c_str(), error);
    DNSServiceRefDeallocate(ref);
    if (!ok)
        return false;

    out->instance = browse.name;
    out->host_target = resolve.host;
    out->port = resolve.port;
    out->txt = resolve.txt;
    out->address = address.address;
    return true;
}

std::string txt_to_text(const Discovered& d)
{
    std::string text;
    for (const auto& item : d.txt) {
        if (!text.empty())
            text += ',';
        text += item.first + '=' + item.second;
    }
    return text;
}

} // namespace sim
