// The program a porter writes first: the everyday Win32 calls, each checked,
// in a private install directory that is removed at the end. Exits 0 when
// every call behaved as the README's "Porting from Win32" section says.
//
//   first_program [INSTALL_DIR]     (default: a new directory under /tmp)
#include <errno.h>
#include <ftw.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <set>
#include <string>

#include <tvcommonutil.h>
#include <tvcommonutil/win32_names.h>

namespace {

int g_failures = 0;

void Check(bool ok, const char* what) {
    printf("%s %s\n", ok ? "ok  " : "FAIL", what);
    if (!ok) ++g_failures;
}

// Two workers started with CreateThread: each says it is ready, then waits
// for the main thread's go.
HANDLE g_ready[2];
HANDLE g_go;
long g_ran = 0;

DWORD WINAPI Worker(LPVOID param) {
    const INT_PTR index = reinterpret_cast<INT_PTR>(param);
    SetEvent(g_ready[index]);
    if (WaitForSingleObjectEx(g_go, 10000, FALSE) != WAIT_OBJECT_0) return 1;
    InterlockedIncrement(&g_ran);
    return 0;
}

void Threads() {
    g_go = CreateEvent(nullptr, TRUE, FALSE, nullptr);  // manual reset
    HANDLE threads[2];
    for (INT_PTR i = 0; i < 2; ++i) {
        g_ready[i] = CreateEvent(nullptr, FALSE, FALSE, nullptr);  // auto reset
        DWORD id = 0;
        threads[i] = CreateThread(nullptr, 0, Worker, reinterpret_cast<LPVOID>(i), 0, &id);
    }
    // With waitAll, any index in range means every event was signalled.
    const DWORD all = WaitForMultipleObjectsEx(2, g_ready, TRUE, 10000, FALSE);
    Check(all - WAIT_OBJECT_0 < 2, "both threads signalled their events");
    SetEvent(g_go);
    // Thread handles are waited one at a time: a set made only of threads
    // is not a supported multi-object wait here.
    for (HANDLE t : threads) {
        Check(WaitForSingleObjectEx(t, 10000, FALSE) == WAIT_OBJECT_0, "thread ended");
        CloseHandle(t);
    }
    Check(g_ran == 2, "both threads ran after the go");
    for (HANDLE e : g_ready) CloseHandle(e);
    CloseHandle(g_go);
}

void Registry() {
    HKEY key = 0;
    DWORD disposition = 0;
    LONG rc = RegCreateKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\FirstProgram", 0, nullptr,
                              REG_OPTION_NON_VOLATILE, KEY_ALL_ACCESS, nullptr, &key, &disposition);
    Check(rc == ERROR_SUCCESS, "RegCreateKeyEx");
    const char name[] = "first";
    RegSetValueExA(key, "Name", 0, REG_SZ, reinterpret_cast<const BYTE*>(name), sizeof name);
    DWORD port = 8080;  // DWORD is 64 bits wide here: always query into a DWORD
    RegSetValueExA(key, "Port", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&port), sizeof port);
    RegCloseKey(key);  // a changed key is written to the registry file on close

    Check(RegOpenKeyExA(HKEY_LOCAL_MACHINE, "SOFTWARE\\FirstProgram", 0, KEY_READ, &key) ==
              ERROR_SUCCESS,
          "RegOpenKeyEx");
    DWORD type = 0, value = 0, size = sizeof value;
    rc = RegQueryValueExA(key, "Port", nullptr, &type, reinterpret_cast<BYTE*>(&value), &size);
    Check(rc == ERROR_SUCCESS && type == REG_DWORD && value == 8080, "RegQueryValueEx REG_DWORD");
    rc = RegQueryValueExA(key, "Missing", nullptr, &type, nullptr, &size);
    Check(rc == ERROR_INVALID_DATA, "a missing value gives 13, not ERROR_FILE_NOT_FOUND");

    std::set<std::string> names;
    for (DWORD i = 0;; ++i) {
        char valueName[256];
        DWORD nameSize = sizeof valueName;
        rc = RegEnumValueA(key, i, valueName, &nameSize, nullptr, nullptr, nullptr, nullptr);
        if (rc != ERROR_SUCCESS) break;
        names.insert(valueName);
    }
    Check(rc == ERROR_NO_MORE_ITEMS && names == std::set<std::string>{"Name", "Port"},
          "RegEnumValue lists both values, then ERROR_NO_MORE_ITEMS");
    RegCloseKey(key);
}

void Profile(const std::string& dir) {
    const std::string ini = dir + "/first.ini";
    WritePrivateProfileStringA("server", "greeting", "hello", ini.c_str());
    // Writes are cached: flush the file before another process reads it.
    WritePrivateProfileStringA(nullptr, nullptr, nullptr, ini.c_str());
    char text[64];
    GetPrivateProfileStringA("server", "greeting", "none", text, sizeof text, ini.c_str());
    Check(strcmp(text, "hello") == 0, "profile value written, flushed and read back");
}

void Find(const std::string& dir) {
    for (const char* n : {"a.log", "b.log", "c.txt"}) {
        HANDLE f = CreateFileA((dir + "/" + n).c_str(), TV_ACCESS_WRITE, 0, nullptr, CREATE_ALWAYS,
                               0, nullptr);
        CloseHandle(f);
    }
    std::set<std::string> found;
    WIN32_FIND_DATAA data;
    HANDLE h = FindFirstFileA((dir + "/*.log").c_str(), &data);
    if (h != INVALID_HANDLE_VALUE) {
        do {
            found.insert(data.cFileName);
        } while (FindNextFileA(h, &data));
        Check(GetLastError() == ERROR_NO_MORE_FILES, "FindNextFile ends with ERROR_NO_MORE_FILES");
        FindClose(h);
    }
    Check(found == std::set<std::string>{"a.log", "b.log"}, "FindFirstFile \"*.log\"");
}

void ChildProcess() {
    // No PATH search: name the program with its full path.
    char commandLine[] = "/bin/sh -c \"exit 3\"";
    STARTUPINFOA startup;
    ZeroMemory(&startup, sizeof startup);
    startup.cb = sizeof startup;
    PROCESS_INFORMATION info;
    ZeroMemory(&info, sizeof info);
    BOOL ok = CreateProcessA(nullptr, commandLine, nullptr, nullptr, FALSE, 0, nullptr, nullptr,
                             &startup, &info);
    Check(ok, "CreateProcess");
    if (!ok) return;
    Check(WaitForSingleObjectEx(info.hProcess, 10000, FALSE) == WAIT_OBJECT_0, "child ended");
    DWORD code = 0;
    Check(GetExitCodeProcess(info.hProcess, &code) && code == 3, "exit code 3");
    CloseHandle(info.hProcess);
}

void Message(const std::string& dir) {
    HANDLE h = CreateFileA((dir + "/missing").c_str(), TV_ACCESS_READ, 0, nullptr, OPEN_EXISTING, 0,
                           nullptr);
    const DWORD error = GetLastError();  // an errno value
    char* text = nullptr;
    FormatMessageA(
        FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS,
        nullptr, error, MAKELANGID(LANG_NEUTRAL, SUBLANG_DEFAULT), reinterpret_cast<char*>(&text),
        0, nullptr);
    Check(h == INVALID_HANDLE_VALUE && text != nullptr && strcmp(text, strerror(ENOENT)) == 0,
          "FormatMessage of the system error");
    if (text != nullptr) printf("     (\"%s\")\n", text);
    LocalFree(text);
}

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) {
    return remove(path);
}

}  // namespace

int main(int argc, char** argv) {
    char made[] = "/tmp/first_program.XXXXXX";
    const std::string dir = argc > 1 ? argv[1] : (mkdtemp(made) ? made : "");
    if (dir.empty()) return 2;
    // The install directory: the registry lives in its registry/ folder and
    // starts as a copy of the template there.
    setenv("TV_REGISTRY", (dir + "/").c_str(), 1);
    CreateDirectoryA(dir.c_str(), nullptr);
    CreateDirectoryA((dir + "/registry").c_str(), nullptr);
    FILE* templ = fopen((dir + "/registry/tv.registry.template").c_str(), "w");
    if (templ != nullptr) fclose(templ);

    Threads();
    Registry();
    Profile(dir);
    Find(dir);
    ChildProcess();
    Message(dir);

    yuWriteAndFreeAllProfiles();
    CleanSystemResources();  // else the registry's System V objects outlive us
    if (argc <= 1) nftw(dir.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
    printf("%s\n", g_failures == 0 ? "all checks passed" : "some checks failed");
    return g_failures == 0 ? 0 : 1;
}
