// The exported Reg* functions over the in-memory tree.
//
// Every call holds the cache lock shared while it uses the tree (so no file
// read or write can change the tree under it), looks its handle up without
// a lock and then works under the key's own lock (shared for the calls that
// only read values). Nothing that takes the
// cache lock exclusively (a refresh, a write) runs while the shared side is
// held: opens refresh before they take it, closes and flushes write after
// they let it go.
#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>

#include "registry/key_tree.h"
#include "registry/registry_format.h"
#include "registry/registry_shared.h"

namespace tv {
namespace detail {

namespace {

HKEY MakeHandle(long index, REGSAM samDesired) {
    return (samDesired & kRegWriteAccess) != 0 ? (index | KEY_WRITE_HANDLE_BIT) : index;
}

CKWString FormatUnderLock(const char* subKey, HKEY hKey) {
    if (hKey == HKEY_LOCAL_MACHINE) return RegFormatKey(subKey != nullptr ? subKey : "", hKey);
    SharedCache hold;
    return RegFormatKey(subKey != nullptr ? subKey : "", hKey);
}

// The full path for subKey under hKey, as RegFormatKey makes it; a path
// under HKEY_LOCAL_MACHINE of usual length is made without allocating.
class RootedPath {
public:
    RootedPath(const char* subKey, HKEY hKey) {
        if (hKey != HKEY_LOCAL_MACHINE) {
            formatted_ = FormatUnderLock(subKey, hKey);
            path_ = formatted_.c_str();
            return;
        }
        static const char kRoot[] = "HKEY_LOCAL_MACHINE\\";
        const size_t rootLen = sizeof kRoot - 1;
        const size_t n = subKey != nullptr ? strlen(subKey) : 0;
        size_t total = rootLen + n;
        char* buf = local_;
        if (total >= sizeof local_) {
            heap_.resize(total + 1);
            buf = &heap_[0];
        }
        memcpy(buf, kRoot, rootLen);
        if (n > 0) memcpy(buf + rootLen, subKey, n);
        while (total > 0 && buf[total - 1] == '\\') --total;
        buf[total] = '\0';
        path_ = buf;
    }
    RootedPath(const RootedPath&) = delete;
    RootedPath& operator=(const RootedPath&) = delete;
    const char* c_str() const { return path_; }
    bool empty() const { return path_[0] == '\0'; }

private:
    char local_[512];
    std::string heap_;
    CKWString formatted_;
    const char* path_;
};

// REG_SZ text, REG_MULTI_SZ with blanks as zero bytes and a final zero,
// REG_DWORD as an 8-byte unsigned long read with strtoul base 0.
void CopyOut(const RegValue& v, BYTE* out) {
    const ValueText text = v.GetData();
    if (v.GetType() == REG_DWORD) {
        unsigned long n = strtoul(text.c_str(), nullptr, 0);
        memcpy(out, &n, sizeof n);
        return;
    }
    const size_t len = static_cast<size_t>(text.length());
    memcpy(out, text.c_str(), len + 1);
    if (v.GetType() == REG_MULTI_SZ) {
        for (size_t i = 0; i < len; ++i) {
            if (out[i] == ' ') out[i] = '\0';
        }
    }
}

// Stores the needed size; copies when a buffer was given and is big enough.
LONG QueryInto(const RegValue& v, DWORD* type, BYTE* data, DWORD* cbData) {
    const unsigned long need = QuerySize(v);
    // Callers size the retry by the type, so it is stored with "more data" too.
    if (type != nullptr) *type = v.GetType();
    if (data != nullptr) {
        if (cbData == nullptr) return -1;
        if (*cbData < need) {
            *cbData = need;
            return ERROR_MORE_DATA;
        }
        CopyOut(v, data);
    }
    if (type != nullptr) *type = v.GetType();
    if (cbData != nullptr) *cbData = need;
    return ERROR_SUCCESS;
}

// The text a value of the given type is held as; false for an unsupported
// type or missing data.
bool ToText(DWORD type, const BYTE* data, DWORD cbData, CKWString& text) {
    switch (type) {
        case REG_SZ: {
            if (data == nullptr) {
                text = "";
                return true;
            }
            const char* s = reinterpret_cast<const char*>(data);
            size_t n = cbData > 0 ? strnlen(s, cbData) : strlen(s);
            text = std::string(s, n);
            return true;
        }
        case REG_DWORD: {
            if (data == nullptr) return false;
            unsigned long n = 0;
            memcpy(&n, data, std::min<DWORD>(cbData, sizeof n));
            char buf[32];
            snprintf(buf, sizeof buf, "%#lx", n);
            text = buf;
            return true;
        }
        case REG_MULTI_SZ: {
            if (data == nullptr || cbData == 0 || data[0] == 0) {
                text = "";
                return true;
            }
            std::string s(reinterpret_cast<const char*>(data), cbData - 1);
            std::replace(s.begin(), s.end(), '\0', ' ');
            text = s;
            return true;
        }
        default:
            errno = ERROR_NOT_SUPPORTED;
            return false;
    }
}

void WakeKeyAndParent(RegKey* key) {
    RegKeyWakeup(key);
    if (key->GetParent() != nullptr) RegKeyWakeup(key->GetParent());
}

// After a change is complete and every registry lock is released.
LONG FlushChanges() {
    if (LazyFlushOn()) {
        SetFlushNeeded();
        return ERROR_SUCCESS;
    }
    if (WriteRegistry()) return ERROR_SUCCESS;
    // The change stays pending here: the next write, or the lazy writer,
    // lands it once the file can be written again.
    const int err = errno;
    SetFlushNeeded();
    errno = err;
    return -1;
}

}  // namespace

unsigned long QuerySize(const RegValue& v) {
    if (v.GetType() == REG_DWORD) return sizeof(unsigned long);
    return static_cast<unsigned long>(v.GetData().length()) + 1;
}

}  // namespace detail
}  // namespace tv

using namespace tv::detail;

LONG RegCreateKeyEx(HKEY hKey, const char* subKey, DWORD, char*, DWORD, REGSAM samDesired,
                    SECURITY_ATTRIBUTES*, HKEY* phkResult, DWORD* disposition) {
    EnsureRegistry();
    if (phkResult == nullptr) return -1;
    const CKWString path = FormatUnderLock(subKey, hKey);
    if (path.empty()) return -1;
    if (!KeyPathFits(path)) {
        errno = ERROR_INVALID_PARAMETER;
        return -1;
    }
    RegUpdateCache();
    SharedCache hold;
    int created = 0;
    long index = -1;
    FindKeyOptions walk;
    walk.create = true;
    RegKey* key = FindKey(RegistryKeys(), path.c_str(), walk, created, index);
    if (key == nullptr) return -1;
    key->OpenHandle(static_cast<int>(samDesired));
    if (created) {
        RegKey* parent = key->GetParent();
        parent->Lock();
        parent->SetDirty(1);
        parent->Unlock();
        key->Lock();
        key->SetDirty(1);
        key->Unlock();
    }
    if (disposition != nullptr)
        *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *phkResult = MakeHandle(index, samDesired);
    return ERROR_SUCCESS;
}

namespace {

// promote: a write-access open of a key that is only a path makes it a key
// of its own; RegDeleteKey's own open of the parent does not.
LONG OpenKeyFor(HKEY hKey, const char* subKey, REGSAM samDesired, HKEY* phkResult, bool promote) {
    EnsureRegistry();
    if (phkResult == nullptr) return ERROR_INVALID_DATA;
    RootedPath path(subKey, hKey);
    if (path.empty()) return ERROR_INVALID_DATA;
    RegUpdateCache();
    SharedCache hold;
    int created = 0;
    long index = -1;
    RegKey* key = FindKey(RegistryKeys(), path.c_str(), FindKeyOptions(), created, index);
    if (key == nullptr) return ERROR_INVALID_DATA;
    if (promote && (samDesired & kRegWriteAccess) != 0 && key->GetParent() != RegistryKeys()) {
        // Opened to be written: a key that was only the path to a deeper
        // one becomes a key of its own, as when it is created explicitly.
        // The root keeps its rule: written only when it holds something.
        key->Lock();
        key->Promote();
        key->Unlock();
    }
    key->OpenHandle(static_cast<int>(samDesired));
    *phkResult = MakeHandle(index, samDesired);
    return ERROR_SUCCESS;
}

}  // namespace

LONG RegOpenKeyEx(HKEY hKey, const char* subKey, DWORD, REGSAM samDesired, HKEY* phkResult) {
    return OpenKeyFor(hKey, subKey, samDesired, phkResult, true);
}

LONG RegQueryValueEx(HKEY hKey, const char* name, DWORD*, DWORD* type, BYTE* data, DWORD* cbData) {
    EnsureRegistry();
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    key->LockShared();
    const RegValue* v = key->FindValue(name != nullptr ? name : "");
    LONG r = v != nullptr ? QueryInto(*v, type, data, cbData) : ERROR_INVALID_DATA;
    key->UnlockShared();
    return r;
}

LONG RegSetValueEx(HKEY hKey, const char* name, DWORD, DWORD type, const BYTE* data, DWORD cbData) {
    EnsureRegistry();
    CKWString text;
    if (!ToText(type, data, cbData, text)) return -1;
    const CKWString valueName(name != nullptr ? name : "");
    if (!ValueLineFits(valueName, text, type)) {
        errno = EINVAL;
        return ERROR_INVALID_PARAMETER;
    }
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    key->Lock();
    LONG r = ERROR_SUCCESS;
    if (key->IsDeleted()) {
        errno = ERROR_KEY_DELETED;
        r = -1;
    } else {
        int changed = 0;
        key->SetValue(RegValue(type, valueName, text), changed, true);
        if (changed) key->SetDirty(1);
    }
    key->Unlock();
    return r;
}

LONG RegSetValueNode(const char* name, DWORD type, const void* data,
                     std::list<RegValueList>& list) {
    RegValueList entry;
    entry.name = name != nullptr ? name : "";
    entry.type = type;
    switch (type) {
        case REG_SZ:
            entry.data = data != nullptr ? static_cast<const char*>(data) : "";
            break;
        case REG_DWORD: {
            if (data == nullptr) return -1;
            char buf[32];
            snprintf(buf, sizeof buf, "%i",
                     static_cast<int>(*static_cast<const unsigned long*>(data)));
            entry.data = buf;
            break;
        }
        case REG_MULTI_SZ: {
            std::string joined;
            for (const char* s = static_cast<const char*>(data); s != nullptr && *s != '\0';
                 s += strlen(s) + 1) {
                joined += s;
                joined += ' ';
            }
            entry.data = joined;
            break;
        }
        default:
            errno = ERROR_NOT_SUPPORTED;
            return -1;
    }
    list.push_back(entry);
    return ERROR_SUCCESS;
}

LONG RegBatchSetValueEx(HKEY hKey, std::list<RegValueList>& list) {
    EnsureRegistry();
    // All or nothing: one entry the file cannot hold refuses the batch.
    for (const RegValueList& e : list) {
        if (!ValueLineFits(e.name, e.data, e.type)) {
            errno = ERROR_INVALID_PARAMETER;
            return -1;
        }
    }
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    key->Lock();
    LONG r = ERROR_SUCCESS;
    if (key->IsDeleted()) {
        errno = ERROR_KEY_DELETED;
        r = -1;
    } else {
        bool any = false;
        for (const RegValueList& e : list) {
            int changed = 0;
            key->SetValue(RegValue(e.type, e.name, e.data), changed, true);
            any = any || changed != 0;
        }
        if (any) key->SetDirty(1);
    }
    key->Unlock();
    return r;
}

LONG RegEnumValue(HKEY hKey, DWORD index, char* name, DWORD* cbName, DWORD*, DWORD* type,
                  BYTE* data, DWORD* cbData) {
    EnsureRegistry();
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    key->LockShared();
    LONG r;
    const RegValue* v = key->ValueAt(static_cast<long>(index));
    if (v == nullptr) {
        r = ERROR_NO_MORE_ITEMS;
    } else if (name == nullptr || cbName == nullptr || (data != nullptr && cbData == nullptr)) {
        r = -1;
    } else {
        const unsigned long nameNeed = static_cast<unsigned long>(v->GetName().length()) + 1;
        const unsigned long dataNeed = QuerySize(*v);
        if (*cbName < nameNeed || (data != nullptr && *cbData < dataNeed)) {
            *cbName = std::max<unsigned long>(*cbName, nameNeed);
            if (cbData != nullptr) *cbData = dataNeed;
            if (type != nullptr) *type = v->GetType();
            r = ERROR_MORE_DATA;
        } else {
            memcpy(name, v->GetName().c_str(), nameNeed);
            *cbName = nameNeed - 1;
            r = QueryInto(*v, type, data, cbData);
        }
    }
    key->UnlockShared();
    return r;
}

LONG RegEnumKey(HKEY hKey, DWORD index, char* name, DWORD cbName) {
    EnsureRegistry();
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr || name == nullptr) return -1;
    key->Lock();
    LONG r;
    RegKey* child = key->SubKeyAt(static_cast<long>(index));
    if (child == nullptr) {
        r = ERROR_NO_MORE_ITEMS;
    } else {
        const CKWString childName = child->GetName();
        const unsigned long need = static_cast<unsigned long>(childName.length()) + 1;
        if (need > cbName) {
            r = -1;
        } else {
            memcpy(name, childName.c_str(), need);
            r = ERROR_SUCCESS;
        }
    }
    key->Unlock();
    return r;
}

LONG RegDeleteValue(HKEY hKey, const char* name) {
    EnsureRegistry();
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    key->Lock();
    LONG r = -1;
    if (key->DeleteValue(name != nullptr ? name : "", true)) {
        key->SetDirty(1);
        r = ERROR_SUCCESS;
    }
    key->Unlock();
    return r;
}

LONG RegDeleteKey(HKEY hKey, const char* subKey) {
    EnsureRegistry();
    if (subKey == nullptr) return -1;
    CKWString name(subKey);
    name.MakeLower();
    HKEY handle = hKey;
    HKEY temp = 0;
    bool opened = false;
    if (hKey == HKEY_LOCAL_MACHINE) {
        unsigned int pos = name.rfind('\\');
        if (pos == CKWString::npos) return -1;
        const CKWString parent = name.substr(0, static_cast<int>(pos));
        name = name.substr(static_cast<int>(pos) + 1);
        if (OpenKeyFor(HKEY_LOCAL_MACHINE, parent.c_str(), kRegWriteAccess, &temp, false) != 0) {
            return -1;
        }
        handle = temp;
        opened = true;
    }
    LONG r = -1;
    if ((handle & KEY_WRITE_HANDLE_BIT) != 0) {
        SharedCache hold;
        RegKey* key = LookupHandle(handle);
        if (key != nullptr) {
            key->Lock();
            if (key->IsDeleted()) {
                r = ERROR_SUCCESS;
            } else {
                r = key->DeleteSubKey(name, true);
                if (r == ERROR_SUCCESS) key->SetDirty(1);
            }
            key->Unlock();
        }
    }
    if (opened) RegCloseKey(temp);
    return r;
}

// A close with changes pending writes them (or hands them to the lazy
// writer) whatever access the handle was opened with: a value set through
// a read handle was still reported as set.
LONG RegCloseKey(HKEY hKey) {
    EnsureRegistry();
    {
        SharedCache hold;
        RegKey* key = LookupHandle(hKey);
        if (key == nullptr) return -1;
        key->Lock();
        if (key->GetOpenCount() == 0) {  // a close racing the last one
            key->Unlock();
            return -1;
        }
        key->DecOpens();
        if (key->GetOpenCount() == 0) {
            key->CloseHandle();
            if (key->IsDeleted()) {
                key->Unlock();
                RegKey::PruneUpward(key);
                return ERROR_SUCCESS;
            }
        }
        if ((hKey & KEY_WRITE_HANDLE_BIT) != 0 && key->GetCreated()) {
            key->ClearCreated();
            key->UpdateSequence();
        }
        if (!key->IsDirty() && !key->NeedsWakeup()) {
            key->Unlock();
            return ERROR_SUCCESS;
        }
        key->SetDirty(0);
        key->DecWakeup();
        WakeKeyAndParent(key);
        key->Unlock();
    }
    return FlushChanges();
}

LONG RegFlushKey(HKEY hKey) {
    EnsureRegistry();
    {
        SharedCache hold;
        RegKey* key = LookupHandle(hKey);
        if (key == nullptr) return -1;
        key->Lock();
        key->SetDirty(0);
        WakeKeyAndParent(key);
        key->Unlock();
    }
    return FlushChanges();
}

LONG RegQueryInfoKey(HKEY hKey, char*, DWORD*, DWORD*, DWORD* cSubKeys, DWORD* cbMaxSubKeyLen,
                     DWORD*, DWORD* cValues, DWORD* cbMaxValueNameLen, DWORD* cbMaxValueLen, DWORD*,
                     FILETIME*) {
    EnsureRegistry();
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    if (key == nullptr) return -1;
    unsigned long subKeys, maxSub, values, maxName, maxData;
    key->LockShared();
    key->GetInfo(subKeys, maxSub, values, maxName, maxData);
    key->UnlockShared();
    if (cSubKeys != nullptr) *cSubKeys = subKeys;
    if (cbMaxSubKeyLen != nullptr) *cbMaxSubKeyLen = maxSub;
    if (cValues != nullptr) *cValues = values;
    if (cbMaxValueNameLen != nullptr) *cbMaxValueNameLen = maxName;
    if (cbMaxValueLen != nullptr) *cbMaxValueLen = maxData;
    return ERROR_SUCCESS;
}

CKWString RegHKEYtoString(HKEY hKey) {
    EnsureRegistry();
    if (hKey == HKEY_LOCAL_MACHINE) return CKWString("HKEY_LOCAL_MACHINE");
    SharedCache hold;
    RegKey* key = LookupHandle(hKey);
    return key != nullptr ? key->GetKey() : CKWString();
}
