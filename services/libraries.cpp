// Shared libraries and message catalogs behind Windows module handles.
//
// A module handle is whatever the loader (dlopen) or the catalog code
// (catopen) returned, passed through unchanged. FreeLibrary and
// GetProcAddress must not hand a catalog descriptor to the loader, so the
// descriptors given out are remembered in OpenCatalogs until freed.
#include <dlfcn.h>
#include <errno.h>
#include <nl_types.h>
#include <stdio.h>
#include <string.h>

#include <set>

#include "tvcommonutil/handles.h"
#include "tvcommonutil/services.h"

namespace {

// Guards OpenCatalogs. Leaf lock: nothing else is taken while it is held.
CriticalSection CatalogLock;
tv::detail::ForkTrackedLock CatalogLockFork(&CatalogLock, tv::detail::ForkTrackedLock::kHandleLock);

std::set<void*>& OpenCatalogs() TV_REQUIRES(CatalogLock) {
    // Built on first use, never destroyed: FreeLibrary may run from other
    // units' static destructors.
    static std::set<void*>* catalogs = new std::set<void*>;
    return *catalogs;
}

void RememberCatalog(void* catalog) {
    CriticalSectionHolder hold(CatalogLock);
    OpenCatalogs().insert(catalog);
}

bool IsCatalog(void* module) {
    CriticalSectionHolder hold(CatalogLock);
    return OpenCatalogs().count(module) != 0;
}

bool ForgetCatalog(void* module) {
    CriticalSectionHolder hold(CatalogLock);
    return OpenCatalogs().erase(module) != 0;
}

// Longest name copied for the extension retry.
constexpr size_t kMaxLibraryName = 4096;

// The name with a final ".DLL" or ".dll" turned into ".SO" or ".so". Only
// these two spellings are rewritten: packages ship their plug-ins under
// exactly those names, and a mixed-case extension is a different file.
bool UnixLibraryName(const char* name, char* out, size_t outSize) {
    size_t len = strnlen(name, kMaxLibraryName);
    if (len + 1 > outSize) return false;
    memcpy(out, name, len);
    out[len] = '\0';
    char* dot = strrchr(out, '.');
    if (dot == nullptr) return false;
    if (strcmp(dot + 1, "DLL") == 0) {
        strcpy(dot + 1, "SO");
    } else if (strcmp(dot + 1, "dll") == 0) {
        strcpy(dot + 1, "so");
    } else {
        return false;
    }
    return true;
}

}  // namespace

HMODULE LoadLibrary(const char* name) {
    return LoadLibraryEx(name, nullptr, 0);
}

HMODULE LoadLibraryEx(const char* name, Handle* /*file: not used*/, unsigned long flags) {
    if (name == nullptr) {
        errno = ERROR_INVALID_PARAMETER;
        return nullptr;
    }
    if (flags == LOAD_MESSAGE_CATALOG) {
        nl_catd catalog = catopen(name, 0);
        if (catalog == reinterpret_cast<nl_catd>(-1)) {
            fprintf(stderr, "LoadLibraryEx: Failed to open msg catlog %s, errno: %s\n", name,
                    strerror(errno));
            return nullptr;
        }
        RememberCatalog(catalog);
        return static_cast<HMODULE>(static_cast<void*>(catalog));
    }

    void* module = dlopen(name, RTLD_LAZY);
    if (module == nullptr) {
        char unixName[kMaxLibraryName + 1];
        if (UnixLibraryName(name, unixName, sizeof(unixName))) module = dlopen(unixName, RTLD_LAZY);
    }
    if (module == nullptr) {
        // Clear the loader's pending error so a later dlerror() by the caller
        // does not report this attempt.
        (void)dlerror();
        errno = ERROR_MOD_NOT_FOUND;
        return nullptr;
    }
    return static_cast<HMODULE>(module);
}

int FreeLibrary(void* module) {
    if (module == nullptr) return 1;
    if (ForgetCatalog(module)) return catclose(static_cast<nl_catd>(module)) == 0 ? 1 : 0;
    return dlclose(module) == 0 ? 1 : 0;
}

void* GetProcAddress(void* module, const char* symbol) {
    if (symbol == nullptr || IsCatalog(module)) return nullptr;
    return dlsym(module, symbol);
}
