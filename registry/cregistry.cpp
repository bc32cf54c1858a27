// CRegistry: one open key with typed reads and writes, each one registry
// call whose result is kept.
#include <string.h>

#include "tvcommonutil/registry.h"

namespace {

constexpr REGSAM kReadOnlyAccess = 0x190000;
constexpr REGSAM kReadWriteAccess = 0x3f0000;

}  // namespace

CRegistry::CRegistry(HKEY hKey, const char* subKey, int readOnly)
    : handle_(0), lastResult_(0), keyName_(subKey != nullptr ? subKey : "") {
    if (subKey == nullptr) return;
    Result(RegOpenKeyEx(hKey, subKey, 0, readOnly ? kReadOnlyAccess : kReadWriteAccess, &handle_));
}

CRegistry::CRegistry(HKEY hKey, const char* subKey, DWORD* disposition, int)
    : handle_(0), lastResult_(0), keyName_(subKey != nullptr ? subKey : "") {
    if (subKey == nullptr) return;
    Result(RegCreateKeyEx(hKey, subKey, 0, nullptr, 0, kReadWriteAccess, nullptr, &handle_,
                          disposition));
}

// A key never opened (null subkey, failed open) has nothing to close.
CRegistry::~CRegistry() {
    if (handle_ != 0) RegCloseKey(handle_);
}

bool CRegistry::SetValue(const char* name, const unsigned long& value) {
    return Result(RegSetValueEx(handle_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value),
                                sizeof value));
}

bool CRegistry::SetValue(const char* name, int const& value) {
    const unsigned long flag = value != 0 ? 1 : 0;
    return Result(
        RegSetValueEx(handle_, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&flag), 4));
}

bool CRegistry::SetValue(const char* name, const char* data, unsigned long& size) {
    return Result(
        RegSetValueEx(handle_, name, 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(data), size));
}

bool CRegistry::SetValue(const char* name, unsigned char* data, unsigned long& size) {
    return Result(RegSetValueEx(handle_, name, 0, REG_BINARY, data, size));
}

bool CRegistry::SetValue(const char* name, const char* value) {
    const DWORD size = value != nullptr ? strlen(value) + 1 : 0;
    return Result(
        RegSetValueEx(handle_, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(value), size));
}

bool CRegistry::GetValue(const char* name, unsigned long& value) {
    unsigned long v = 0;
    DWORD size = sizeof v;
    if (!Result(
            RegQueryValueEx(handle_, name, nullptr, nullptr, reinterpret_cast<BYTE*>(&v), &size))) {
        return false;
    }
    value = v;
    return true;
}

bool CRegistry::GetValue(const char* name, unsigned long* value) {
    if (value == nullptr) return false;
    return GetValue(name, *value);
}

bool CRegistry::GetValue(const char* name, int& value) {
    unsigned long v = 0;
    if (!GetValue(name, v)) return false;
    value = v != 0 ? 1 : 0;
    return true;
}

bool CRegistry::GetValue(const char* name, unsigned char* data, unsigned long* size) {
    return Result(RegQueryValueEx(handle_, name, nullptr, nullptr, data, size));
}

bool CRegistry::GetValue(const char* name, unsigned char* data, unsigned long& size) {
    return Result(RegQueryValueEx(handle_, name, nullptr, nullptr, data, &size));
}

bool CRegistry::GetValue(const char* name, SharedBasicString<char>& value) {
    char buf[1024];
    memset(buf, 0, sizeof buf);
    DWORD size = sizeof buf;
    if (!Result(RegQueryValueEx(handle_, name, nullptr, nullptr, reinterpret_cast<BYTE*>(buf),
                                &size))) {
        return false;
    }
    value.assign(buf, size);
    return true;
}

bool CRegistry::Delete() {
    return Result(RegDeleteKey(handle_, keyName_.c_str()));
}

bool CRegistry::DeleteSubKey(const char* name) {
    if (name == nullptr) return false;
    return Result(RegDeleteKey(handle_, name));
}

bool CRegistry::DeleteValue(const char* name) {
    return Result(RegDeleteValue(handle_, name));
}
