// Directory search: FindFirstFile / FindNextFile / FindClose over one glob
// engine per search handle.
//
// The whole listing is taken when the search starts (the engine walks the
// directory once); FindNextFile only hands out the next stored result, so
// entries made or removed during a search are not seen. Names come back
// bare: the walk starts with an empty prefix and no full-path flag.
#include <errno.h>
#include <string.h>
#include <sys/stat.h>

#include "files/find_split.h"
#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

namespace tv {
namespace detail {

void SplitFindPattern(const char* pattern, CKWString* directory, CKWString* namePattern) {
    const char* text = pattern != nullptr ? pattern : "";
    *directory = text;
    *namePattern = "*";
    const size_t length = strlen(text);
    const bool wild = strpbrk(text, "*?") != nullptr;
    const char* slash = strrchr(text, '/');
    if (slash == nullptr || slash - text == 1) return;
    const size_t p = static_cast<size_t>(slash - text) + 1;
    if (p >= length) return;
    if (!wild) {
        struct stat st;
        if (stat(text, &st) == 0 && S_ISDIR(st.st_mode)) return;
    }
    *namePattern = text + p;
    *directory = CKWString(std::string(text, p));
}

}  // namespace detail
}  // namespace tv

FindFileHandle::FindFileHandle(const CKWString& directory, const CKWString& namePattern)
    : Handle(1) {
    // Directory entries are reported by the walk whatever the pattern; a
    // search for a particular pattern leaves them out.
    const unsigned long flags = namePattern == "*" ? 0 : KWGLOB_NO_DIRS;
    glob_.ClearPatterns();
    glob_.AddPattern(namePattern.c_str(), flags);
    glob_.GlobMore(directory);
    glob_.begin();
}

FindFileHandle::~FindFileHandle() {}

int FindFileHandle::What() {
    return kHandleFindFile;
}

Handle* FindFileHandle::CopyOutFile(_WIN32_FIND_DATA* data, unsigned char /*next*/) {
    if (glob_.end()) return INVALID_HANDLE_VALUE;
    // The result stays in place when the cursor moves on: no copies.
    const GlobResult_t& r = *glob_;
    const struct stat& st = r.statData;
    const CKWString& name = r.path;

    memset(data, 0, sizeof *data);
    data->dwFileAttributes =
        (st.st_mode & S_IFMT) == S_IFDIR ? TV_FILE_ATTRIBUTE_DIRECTORY : TV_FILE_ATTRIBUTE_NORMAL;
    time_tToFileTime(st.st_mtime, &data->ftCreationTime, 0);
    time_tToFileTime(st.st_atime, &data->ftLastAccessTime, 0);
    time_tToFileTime(st.st_mtime, &data->ftLastWriteTime, 0);
    data->nFileSizeHigh = 0;
    data->nFileSizeLow = static_cast<DWORD>(st.st_size);
    // Entry names are at most 255 bytes; the bound only guards the record.
    const size_t n = strnlen(name.c_str(), sizeof data->cFileName - 1);
    memcpy(data->cFileName, name.c_str(), n);
    data->cFileName[n] = '\0';
    glob_++;
    return this;
}

Handle* FindFirstFile(const char* pattern, _WIN32_FIND_DATA* data) {
    CKWString directory, namePattern;
    tv::detail::SplitFindPattern(pattern, &directory, &namePattern);
    FindFileHandle* h = new FindFileHandle(directory, namePattern);
    if (data != nullptr && h->CopyOutFile(data, 0) == INVALID_HANDLE_VALUE) {
        h->DecRefCount();
        errno = ERROR_FILE_NOT_FOUND;
        return INVALID_HANDLE_VALUE;
    }
    return h;
}

int FindNextFile(Handle* h, _WIN32_FIND_DATA* data) {
    if (h == nullptr || h == INVALID_HANDLE_VALUE || h->What() != kHandleFindFile) {
        errno = ERROR_INVALID_HANDLE;
        return FALSE;
    }
    if (data == nullptr) {
        errno = ERROR_INVALID_PARAMETER;
        return FALSE;
    }
    // The usual loop ends on GetLastError() == ERROR_NO_MORE_FILES.
    if (static_cast<FindFileHandle*>(h)->CopyOutFile(data, 1) == INVALID_HANDLE_VALUE) {
        errno = ERROR_NO_MORE_FILES;
        return FALSE;
    }
    return TRUE;
}

// Drops the caller's reference, which ends the search unless the handle was
// duplicated.
int FindClose(Handle* h) {
    if (h != nullptr && h != INVALID_HANDLE_VALUE) h->DecRefCount();
    return 2;
}
