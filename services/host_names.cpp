// Name and address look-ups over the re-entrant resolver calls. Nothing here
// keeps state: the storage is the caller's or on the stack, so every call
// may run on any thread.
#include <arpa/inet.h>
#include <netdb.h>
#include <netinet/in.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>

#include "tvcommonutil/services.h"

namespace {

// The product's own numbers for resolver failures.
constexpr int kNameNotFound = 7;
constexpr int kUnrecoverable = 9;
constexpr int kTryAgainOrNoData = 13;

int MapResolverError(int herr) {
    switch (herr) {
        case HOST_NOT_FOUND:
            return kNameNotFound;
        case TRY_AGAIN:
        case NO_DATA:
            return kTryAgainOrNoData;
        default:
            return kUnrecoverable;
    }
}

// Longest host name tv_resolveIP accepts (NI_MAXHOST less its terminator).
constexpr size_t kMaxHostText = 1025;
// Size of the caller's numeric-host buffer, terminator included.
constexpr socklen_t kNumericHostSize = 32;

}  // namespace

hostent* cagethostbyaddr(const char* address, int length, int family, hostent* entry,
                         hostent_data* data, int* error) {
    if (address == nullptr || entry == nullptr || data == nullptr || length < 0) {
        if (error) *error = kUnrecoverable;
        return nullptr;
    }
    memset(entry, 0, sizeof(*entry));
    memset(data, 0, sizeof(*data));
    hostent* result = nullptr;
    int herr = 0;
    int rc = gethostbyaddr_r(address, static_cast<socklen_t>(length), family, entry, data->buffer,
                             sizeof(data->buffer), &result, &herr);
    if (rc == 0 && result == entry) return entry;
    if (error) *error = MapResolverError(herr);
    return nullptr;
}

hostent* tv_gethostbyname(const char* name, hostent* entry, char* buffer, int bufferLength) {
    if (name == nullptr || entry == nullptr || buffer == nullptr || bufferLength <= 0) {
        return nullptr;
    }
    hostent* result = nullptr;
    int herr = 0;
    int rc =
        gethostbyname_r(name, entry, buffer, static_cast<size_t>(bufferLength), &result, &herr);
    return rc == 0 && result == entry ? entry : nullptr;
}

bool CTvOS::isWin2K3() {
    return false;
}

bool CTvOS::tv_DnsQuery(std::string, std::string&, int&) {
    return false;
}

bool CTvOS::tv_gethostbyaddr(std::string ipText, std::string& name) {
    in_addr_t addr = inet_addr(ipText.c_str());
    hostent entry;
    hostent_data data;
    int error = 0;
    if (cagethostbyaddr(reinterpret_cast<const char*>(&addr), 4, AF_INET, &entry, &data, &error) ==
        nullptr) {
        return false;
    }
    name = entry.h_name ? entry.h_name : "";
    return true;
}

bool CTvOS::tv_gethostbyaddr(std::string ipText, std::string& name, std::string& addressText) {
    in_addr_t addr = inet_addr(ipText.c_str());
    hostent entry;
    hostent_data data;
    int error = 0;
    if (cagethostbyaddr(reinterpret_cast<const char*>(&addr), 4, AF_INET, &entry, &data, &error) !=
        nullptr) {
        name = entry.h_name ? entry.h_name : "";
        if (entry.h_addr_list && entry.h_addr_list[0]) {
            in_addr first;
            memcpy(&first, entry.h_addr_list[0], sizeof(first));
            char text[INET_ADDRSTRLEN];
            // inet_ntop rather than inet_ntoa: same dotted text, no static
            // buffer shared between threads.
            if (inet_ntop(AF_INET, &first, text, sizeof(text))) addressText = text;
        }
    }
    // Deliberately false in every case: callers of this form test the
    // strings, not the result.
    return false;
}

hostent* CTvOS::tv_gethostbyname(std::string name, hostent* entry, char* buffer, int bufferLength) {
    return ::tv_gethostbyname(name.c_str(), entry, buffer, bufferLength);
}

bool CTvOS::tv_resolveIP(const char* host, int port, char* numericHost, bool skipIPv6) {
    if (numericHost == nullptr || host == nullptr) return false;
    if (strnlen(host, kMaxHostText + 1) > kMaxHostText) return false;

    char service[16];
    snprintf(service, sizeof(service), "%d", port);
    addrinfo hints;
    memset(&hints, 0, sizeof(hints));
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_DGRAM;
    addrinfo* list = nullptr;
    if (getaddrinfo(host, service, &hints, &list) != 0) return false;

    bool found = false;
    for (addrinfo* ai = list; ai != nullptr && !found; ai = ai->ai_next) {
        if (skipIPv6 && ai->ai_family == AF_INET6) continue;
        found = getnameinfo(ai->ai_addr, ai->ai_addrlen, numericHost, kNumericHostSize, nullptr, 0,
                            NI_NUMERICHOST) == 0;
    }
    freeaddrinfo(list);
    return found;
}
