// The profile cache: the process-wide list of cached files, its lock, table
// construction and destruction, and the cache-control entry points.
#include <errno.h>
#include <pthread.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <atomic>

#include "profile/profile_cache.h"
#include "tvcommonutil/profile.h"
#include "tvcommonutil/types.h"

namespace tv {
namespace detail {

ProfileMutex yuProfileMutex;
yufiletable* pYUFileTable = nullptr;
bool yuProfileWriteCaching = true;

namespace {

pthread_once_t g_profileMutexOnce = PTHREAD_ONCE_INIT;
std::atomic<bool> g_profileMutexNeedToInit{true};

// Held across fork so the child never inherits it locked by a thread that
// does not exist there; the child starts with a fresh mutex and keeps the
// parent's tables (its own copy, as with any memory).
void LockBeforeFork() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_lock(&yuProfileMutex.mutex_);
}
void UnlockInParent() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_unlock(&yuProfileMutex.mutex_);
}
void ReinitInChild() TV_NO_THREAD_SAFETY_ANALYSIS {
    pthread_mutex_init(&yuProfileMutex.mutex_, nullptr);
}

// Cached changes are written at a normal exit, as an explicit
// yuWriteAndFreeAllProfiles would; the tables themselves are left to the OS.
void FlushAllAtExit() {
    ProfileMutexHolder hold(yuProfileMutex);
    for (yufiletable* t = pYUFileTable; t != nullptr; t = t->next) {
        if (t->dirty) yuFlushProfileToDisk(t);
    }
}

void InitProfileMutex() {
    pthread_mutex_init(&yuProfileMutex.mutex_, nullptr);
    pthread_atfork(LockBeforeFork, UnlockInParent, ReinitInChild);
    atexit(FlushAllAtExit);
    g_profileMutexNeedToInit.store(false, std::memory_order_release);
}

void* CheckedAlloc(void* p) {
    // Running out of memory while building a table is not recoverable here:
    // a half-built table would be written back over the file.
    if (p == nullptr) abort();
    return p;
}

template <typename T>
bool AppendSlotImpl(T*** arr, int16_t* count, T* item) {
    int n = *count;
    if (n >= kProfileMaxCount) return false;
    if (n % 8 == 0) {
        size_t bytes = sizeof(T*) * static_cast<size_t>(n + 8);
        *arr = static_cast<T**>(CheckedAlloc(n == 0 ? malloc(bytes) : realloc(*arr, bytes)));
        for (int i = n; i < n + 8; ++i) (*arr)[i] = nullptr;
    }
    (*arr)[n] = item;
    *count = static_cast<int16_t>(n + 1);
    return true;
}

}  // namespace

void ProfileMutex::Lock() {
    pthread_once(&g_profileMutexOnce, InitProfileMutex);
    pthread_mutex_lock(&mutex_);
}

void ProfileMutex::Unlock() {
    pthread_mutex_unlock(&mutex_);
}

bool ProfileMutexNeedsInit() {
    return g_profileMutexNeedToInit.load(std::memory_order_acquire);
}

bool ProfileNameUsable(const char* path) {
    if (path == nullptr) {
        errno = ERROR_INVALID_PARAMETER;
        return false;
    }
    if (strnlen(path, kProfileNameSize) >= kProfileNameSize) {
        errno = ENAMETOOLONG;
        return false;
    }
    return true;
}

bool AppendProfileSlot(char*** arr, int16_t* count, char* item) {
    return AppendSlotImpl(arr, count, item);
}

bool AppendProfileSlot(yusection*** arr, int16_t* count, yusection* item) {
    return AppendSlotImpl(arr, count, item);
}

yufiletable* NewProfileTable(const char* path) {
    auto* t = static_cast<yufiletable*>(CheckedAlloc(calloc(1, sizeof(yufiletable))));
    strncpy(t->name, path, kProfileNameSize - 1);
    return t;
}

yusection* NewProfileSection(char* name, char* headerLine) {
    auto* s = static_cast<yusection*>(CheckedAlloc(calloc(1, sizeof(yusection))));
    s->name = name;
    s->headerLine = headerLine;
    return s;
}

void FreeProfileSection(yusection* s) {
    if (s == nullptr) return;
    for (int i = 0; i < s->lineCount; ++i) free(s->lines[i]);
    free(s->name);
    if (s->lineCount != 0) free(s->lines);
    free(s->headerLine);
    FreeProfileLookupIndex(s->keyIndex);
    free(s);
}

void FreeProfileTable(yufiletable* t) {
    if (t == nullptr) return;
    for (int i = 0; i < t->sectionCount; ++i) FreeProfileSection(t->sections[i]);
    if (t->sectionCount != 0) free(t->sections);
    for (int i = 0; i < t->headerCount; ++i) free(t->headerLines[i]);
    if (t->headerCount != 0) free(t->headerLines);
    FreePendingChanges(t->pending);
    FreeProfileLookupIndex(t->sectionIndex);
    free(t);
}

yufiletable* FindProfileTable(const char* path) {
    for (yufiletable* t = pYUFileTable; t != nullptr; t = t->next) {
        if (strcasecmp(t->name, path) == 0) return t;
    }
    return nullptr;
}

int yuFreeProfileStructures(const char* path) {
    yufiletable** link = &pYUFileTable;
    while (*link != nullptr && strcasecmp((*link)->name, path) != 0) link = &(*link)->next;
    yufiletable* t = *link;
    if (t == nullptr) return 0;
    *link = t->next;
    FreeProfileTable(t);
    return 1;
}

}  // namespace detail
}  // namespace tv

using tv::detail::ProfileMutexHolder;
using tv::detail::yufiletable;

void yuSetProfileWriteCaching(bool on) {
    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    if (tv::detail::yuProfileWriteCaching && !on) {
        for (yufiletable* t = tv::detail::pYUFileTable; t != nullptr; t = t->next) {
            if (t->dirty) tv::detail::yuFlushProfileToDisk(t);
        }
    }
    tv::detail::yuProfileWriteCaching = on;
}

void yuWriteAndFreeAllProfiles() {
    ProfileMutexHolder hold(tv::detail::yuProfileMutex);
    while (yufiletable* t = tv::detail::pYUFileTable) {
        if (t->dirty) tv::detail::yuFlushProfileToDisk(t);  // failures deliberately ignored
        // The head is the first table carrying its name, so freeing by name
        // frees exactly this one.
        char name[tv::detail::kProfileNameSize];
        memcpy(name, t->name, sizeof name);
        tv::detail::yuFreeProfileStructures(name);
    }
}
