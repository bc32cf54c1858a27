// The glob engine on arbitrary pattern and name bytes.
//
// Input: one flags byte, then the pattern, a NUL, and the name (each cut to
// 4 KiB). Besides surviving, the engine must agree with fnmatch where the
// two define the same language (only '*', '?' and plain bytes), and Match
// must honour inversion.
#include <fnmatch.h>
#include <stddef.h>
#include <stdint.h>
#include <string.h>

#include <algorithm>
#include <string>

#include <tvcommonutil.h>

namespace {

constexpr size_t kMaxText = 4096;

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

bool SimpleLanguage(const std::string& p) {
    return p.find_first_of("[{\\") == std::string::npos;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1) return 0;
    const uint8_t selector = data[0];
    const char* rest = reinterpret_cast<const char*>(data + 1);
    const size_t restSize = size - 1;
    const char* sep = static_cast<const char*>(memchr(rest, 0, restSize));
    std::string pattern(rest, sep ? static_cast<size_t>(sep - rest) : restSize);
    std::string name =
        sep ? std::string(sep + 1, restSize - static_cast<size_t>(sep - rest) - 1) : std::string();
    if (pattern.size() > kMaxText) pattern.resize(kMaxText);
    name = name.substr(0, std::min(kMaxText, strnlen(name.c_str(), name.size())));

    unsigned long flags = 0;
    if (selector & 1) flags |= KWGLOB_QUOTE;
    if (selector & 2) flags |= KWGLOB_INVERT;

    KWSuperGlob g;
    g.AddPattern(pattern.c_str(), flags);
    const bool ours = g.Match(name.c_str());

    if (selector & 4) {
        // Adding "*" to the set makes every name match.
        KWSuperGlob two;
        const char* list[] = {pattern.c_str(), "*", nullptr};
        if (two.SetPatterns(list, flags & ~KWGLOB_INVERT)) Check(two.Match(name.c_str()));
    }

    if (SimpleLanguage(pattern)) {
        const bool theirs = fnmatch(pattern.c_str(), name.c_str(), FNM_NOESCAPE) == 0;
        Check(ours == ((flags & KWGLOB_INVERT) ? !theirs : theirs));
    }
    if (pattern.find_first_of("*?[{\\") == std::string::npos && pattern.size() < kMaxText) {
        const bool equal = pattern == name;
        Check(ours == ((flags & KWGLOB_INVERT) ? !equal : equal));
    }
    return 0;
}
