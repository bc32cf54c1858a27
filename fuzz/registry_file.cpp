// The registry file reader on arbitrary bytes.
//
// Each input is read as a whole registry file into an empty tree, the tree
// is printed as the writer would, and that text is read again, first as a
// refresh of the live tree and then into an empty tree: neither may crash,
// hang or leak, a refresh with the tree's own text must change nothing, and
// what the writer produces must read back to itself (the writer never
// produces a file the reader takes differently).
#include <stdint.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include "registry/key_tree.h"
#include "registry/registry_format.h"
#include "registry/testing.h"

namespace {

void Check(bool ok) {
    if (!ok) __builtin_trap();
}

int Memfd() {
    static int fd = memfd_create("registry_fuzz", 0);
    return fd;
}

void Load(const char* data, size_t size, int refresh) {
    int fd = Memfd();
    Check(fd >= 0);
    Check(ftruncate(fd, 0) == 0);
    Check(size == 0 || pwrite(fd, data, size, 0) == static_cast<ssize_t>(size));
    Check(lseek(fd, 0, SEEK_SET) == 0);
    tv::detail::ReadRegistryFd(fd, refresh);
}

std::string Print() {
    tv::detail::PrintSink sink;
    tv::detail::RegistryKeys()->Print(sink, 1, 0);
    return sink.text;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    Load(reinterpret_cast<const char*>(data), size, 0);
    const std::string first = Print();
    Load(first.data(), first.size(), 1);
    Check(Print() == first);
    tv::detail::ClearRegistryTree();
    Load(first.data(), first.size(), 0);
    Check(Print() == first);
    tv::detail::ClearRegistryTree();
    return 0;
}
