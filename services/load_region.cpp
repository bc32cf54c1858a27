// The server load region: a named file mapping of 272 bytes through which a
// server publishes its current load for other processes on the host.
//
// The load word is shared between processes without a lock: it is a single
// aligned 64-bit word, stored and loaded atomically, so a reader sees either
// the old or the new value. The reserved words are written only when a
// publisher initialises the region.
#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

#include <string>

namespace {

constexpr unsigned long kRegionSize = sizeof(KwLoadRegion);
constexpr unsigned long kMaxLoad = 100;
constexpr long kNoLoad = -1;
constexpr unsigned long kOpenReadWrite = 2;  // O_RDWR, as the mapping's open flags
constexpr unsigned long kViewReadWrite = 3;  // PROT_READ | PROT_WRITE

void StoreLoad(long* word, long value) {
    __atomic_store_n(word, value, __ATOMIC_RELEASE);
}

}  // namespace

int InitLoadBalancingRegion(HANDLE* mapping, KwLoadRegion** view, const char* suffix) {
    std::string name = "KWLoadValue";
    if (suffix != nullptr) name += suffix;
    _SECURITY_ATTRIBUTES security = {sizeof(_SECURITY_ATTRIBUTES), nullptr, TRUE};
    Handle* h = CreateFileMapping(reinterpret_cast<Handle*>(0xFFFFFFFFUL), &security,
                                  kOpenReadWrite, 0, kRegionSize, &name[0]);
    if (h == nullptr) return 0;
    void* p = MapViewOfFile(h, kViewReadWrite, 0, 0, 0);
    if (p == nullptr) {
        CloseHandle(h);
        return 0;
    }
    KwLoadRegion* region = static_cast<KwLoadRegion*>(p);
    region->reserved248 = 0;
    region->reserved256 = -1;
    region->reserved264 = 0;
    StoreLoad(&region->load, kNoLoad);
    if (mapping != nullptr) {
        *mapping = h;
    } else {
        CloseHandle(h);
    }
    if (view != nullptr) *view = region;
    return 1;
}

int DetachLoadBalancingRegion(KwLoadRegion* view) {
    if (view == nullptr) return 1;
    StoreLoad(&view->load, kNoLoad);
    UnmapViewOfFile(view);
    return 1;
}

long KwGetServerLoad(KwLoadRegion* view) {
    if (view == nullptr) return kNoLoad;
    return __atomic_load_n(&view->load, __ATOMIC_ACQUIRE);
}

int KwSetServerLoad(unsigned long load, long* target) {
    if (target == nullptr || load > kMaxLoad) return 0;
    StoreLoad(target, static_cast<long>(load));
    return 1;
}

int KwSetServerRestricted() {
    return 1;
}

int KwSetServerUnrestricted() {
    return 1;
}
