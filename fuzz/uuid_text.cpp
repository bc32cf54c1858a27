// UuidFromString on arbitrary text. Whatever parses must print as 36
// characters and parse back to the same identifier (only the low 32 bits of
// Data1 are printed); whatever fails must leave the record zero.
#include <stdint.h>
#include <stdlib.h>
#include <string.h>

#include <vector>

#include <tvcommonutil.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    // An exact-size NUL-terminated copy, so any read past the text is caught.
    std::vector<unsigned char> text(data, data + size);
    text.push_back('\0');

    _GUID g;
    memset(&g, 0x5A, sizeof(g));
    long r = UuidFromString(text.data(), &g);
    if (r != 0) {
        _GUID nil;
        memset(&nil, 0, sizeof(nil));
        if (r != 1 || memcmp(&g, &nil, sizeof(g)) != 0) abort();
        return 0;
    }

    unsigned char* printed = nullptr;
    if (UuidToString(&g, &printed) != 0 || printed == nullptr) abort();
    if (strlen(reinterpret_cast<char*>(printed)) != 36) abort();
    _GUID back;
    if (UuidFromString(printed, &back) != 0) abort();
    g.Data1 &= 0xFFFFFFFFUL;
    long status = -1;
    if (UuidCompare(&g, &back, &status) != 0 || status != 0) abort();

    // A canonical text prints back as itself, in lower case.
    bool canonical = size >= 36;
    for (size_t i = 0; canonical && i < 36; ++i) {
        unsigned char c = data[i];
        bool hyphenSlot = i == 8 || i == 13 || i == 18 || i == 23;
        canonical = hyphenSlot ? c == '-'
                               : ((c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') ||
                                  (c >= 'A' && c <= 'F'));
    }
    if (canonical) {
        for (size_t i = 0; i < 36; ++i) {
            unsigned char c = data[i];
            if (c >= 'A' && c <= 'F') c = static_cast<unsigned char>(c - 'A' + 'a');
            if (printed[i] != c) abort();
        }
    }
    RpcStringFree(&printed);
    return 0;
}
