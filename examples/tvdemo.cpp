// tvdemo: a small server embedding libtvcommonutil the way the product's
// servers use it.
//
// On start it brings up the registry of its install directory (made from an
// embedded template on first run), reads its settings from the registry and
// from a profile file, starts the registry lazy writer and the directory
// watcher, and watches an inbox directory through a completion port. Every
// new file in the inbox goes to a thread pool, which counts its lines, words
// and bytes and records them as registry values under the results key. The
// server publishes its load (queued files) in the server load region and
// stops on SIGTERM/SIGINT or after its run time, flushing the registry and
// the profiles.
//
//   tvdemo [--root DIR] [--run-seconds N]
//
// DIR (default $TV_REGISTRY) is the install directory: the registry lives in
// DIR/registry/, the profile is DIR/tvdemo.ini, the inbox DIR/inbox/ unless
// the registry says otherwise.
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

namespace {

const char kSettingsKey[] = "SOFTWARE\\TvDemo\\Server";
const char kResultsKey[] = "SOFTWARE\\TvDemo\\Results";

// The registry an install directory starts from, in the registry file's own
// text format (value lines: name, data and type separated by tabs).
const char kTemplate[] =
    "\n"
    "HKEY_LOCAL_MACHINE\\SOFTWARE\\TvDemo\\Server=101\n"
    "Inbox=                \t                inbox;\tREG_SZ\n"
    "Workers=              \t                  0x2;\tREG_DWORD\n"
    "RunSeconds=           \t                  0x0;\tREG_DWORD\n"
    "\n";

volatile sig_atomic_t g_stop = 0;

void OnSignal(int) {
    g_stop = 1;
}

void Log(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
void Log(const char* fmt, ...) {
    char when[32];
    SYSTEMTIME st;
    GetLocalTime(&st);
    snprintf(when, sizeof when, "%02u:%02u:%02u.%03u", st.wHour, st.wMinute, st.wSecond,
             st.wMilliseconds);
    va_list ap;
    va_start(ap, fmt);
    char text[1024];
    vsnprintf(text, sizeof text, fmt, ap);
    va_end(ap);
    printf("[tvdemo %s] %s\n", when, text);
    fflush(stdout);
}

bool WriteWholeFile(const std::string& path, const char* text) {
    FILE* f = fopen(path.c_str(), "w");
    if (!f) return false;
    bool ok = fputs(text, f) >= 0;
    return fclose(f) == 0 && ok;
}

// Settings from the registry, with the embedded defaults where a value is
// missing.
struct Settings {
    std::string inbox = "inbox";
    unsigned long workers = 2;
    unsigned long runSeconds = 0;
    std::string name = "tvdemo";
    unsigned long scanMs = 1000;
};

unsigned long QueryDword(HKEY key, const char* name, unsigned long fallback) {
    unsigned long value = 0;
    DWORD type = 0, size = sizeof value;
    if (RegQueryValueEx(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&value), &size) != 0 ||
        type != REG_DWORD)
        return fallback;
    return value;
}

std::string QueryString(HKEY key, const char* name, const std::string& fallback) {
    char buf[1024];
    DWORD type = 0, size = sizeof buf;
    if (RegQueryValueEx(key, name, nullptr, &type, reinterpret_cast<BYTE*>(buf), &size) != 0 ||
        type != REG_SZ)
        return fallback;
    return buf;
}

Settings LoadSettings(const std::string& root) {
    Settings s;
    HKEY key = 0;
    if (RegOpenKeyEx(HKEY_LOCAL_MACHINE, kSettingsKey, 0, KEY_READ, &key) == 0) {
        s.inbox = QueryString(key, "Inbox", s.inbox);
        s.workers = QueryDword(key, "Workers", s.workers);
        s.runSeconds = QueryDword(key, "RunSeconds", s.runSeconds);
        RegCloseKey(key);
    }
    // The profile holds what an operator tunes by hand.
    const std::string ini = root + "tvdemo.ini";
    char buf[256];
    GetPrivateProfileString("server", "name", "tvdemo", buf, sizeof buf, ini.c_str());
    s.name = buf;
    GetPrivateProfileString("server", "scan_ms", "1000", buf, sizeof buf, ini.c_str());
    s.scanMs = strtoul(buf, nullptr, 10);
    if (s.scanMs < 100) s.scanMs = 100;
    if (s.inbox.empty() || s.inbox[0] != '/') s.inbox = root + s.inbox;
    if (s.workers < 1) s.workers = 1;
    if (s.workers > 16) s.workers = 16;
    return s;
}

// ---------------------------------------------------------------------------
// Work: one file of the inbox.

long g_pending = 0;  // queued or running items (interlocked)
KwLoadRegion* g_load = nullptr;

void PublishLoad() {
    long pending = InterlockedExchangeAdd(&g_pending, 0);
    long load = pending * 10 > 100 ? 100 : pending * 10;
    if (g_load) KwSetServerLoad(static_cast<unsigned long>(load), &g_load->load);
}

struct Job {
    std::string path;
    std::string name;
};

void RecordResult(const Job& job, unsigned long lines, unsigned long words, unsigned long bytes) {
    std::string keyPath = std::string(kResultsKey) + "\\" + job.name;
    HKEY key = 0;
    DWORD disposition = 0;
    if (RegCreateKeyEx(HKEY_LOCAL_MACHINE, keyPath.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr,
                       &key, &disposition) != 0) {
        Log("cannot create %s", keyPath.c_str());
        return;
    }
    RegSetValueEx(key, "Lines", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&lines), sizeof lines);
    RegSetValueEx(key, "Words", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&words), sizeof words);
    RegSetValueEx(key, "Bytes", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&bytes), sizeof bytes);
    char when[64];
    SYSTEMTIME st;
    GetSystemTime(&st);
    snprintf(when, sizeof when, "%04u-%02u-%02uT%02u:%02u:%02uZ", st.wYear, st.wMonth, st.wDay,
             st.wHour, st.wMinute, st.wSecond);
    RegSetValueEx(key, "Processed", 0, REG_SZ, reinterpret_cast<const BYTE*>(when),
                  static_cast<DWORD>(strlen(when) + 1));
    RegCloseKey(key);  // marks the key for the lazy writer
}

void ProcessFile(void* item) {
    Job* job = static_cast<Job*>(item);
    FILE* f = fopen(job->path.c_str(), "r");
    if (f) {
        unsigned long lines = 0, words = 0, bytes = 0;
        bool inWord = false;
        int c;
        while ((c = fgetc(f)) != EOF) {
            ++bytes;
            if (c == '\n') ++lines;
            bool space = c == ' ' || c == '\t' || c == '\n' || c == '\r';
            if (!space && !inWord) ++words;
            inWord = !space;
        }
        fclose(f);
        RecordResult(*job, lines, words, bytes);
        Log("processed %s: %lu lines, %lu words, %lu bytes", job->name.c_str(), lines, words,
            bytes);
    }
    delete job;
    InterlockedDecrement(&g_pending);
    PublishLoad();
}

void DropJob(void* item) {
    delete static_cast<Job*>(item);
}

// Parses the records of one collection and queues every added file.
void QueueAdded(const unsigned char* buf, unsigned long bytes, const std::string& inbox,
                TvThreadPool& pool) {
    if (bytes < sizeof(NOTIFY_RECORD)) return;
    for (const NOTIFY_RECORD* rec = reinterpret_cast<const NOTIFY_RECORD*>(buf); rec != nullptr;
         rec = rec->Next()) {
        const unsigned long off =
            static_cast<unsigned long>(reinterpret_cast<const unsigned char*>(rec) - buf);
        if (off + sizeof(NOTIFY_RECORD) > bytes || rec->FileNameLength < 0 ||
            off + sizeof(NOTIFY_RECORD) + static_cast<unsigned long>(rec->FileNameLength) > bytes)
            break;
        std::string name(rec->FileName(), static_cast<size_t>(rec->FileNameLength));
        while (!name.empty() && name[0] == '/') name.erase(0, 1);
        if (rec->Action == FILE_ACTION_ADDED && rec->Attributes != TV_FILE_ATTRIBUTE_DIRECTORY &&
            !name.empty()) {
            InterlockedIncrement(&g_pending);
            PublishLoad();
            pool.Produce(new Job{inbox + "/" + name, name});
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    std::string root;
    long runOverride = -1;
    for (int i = 1; i < argc; ++i) {
        if (strcmp(argv[i], "--root") == 0 && i + 1 < argc) {
            root = argv[++i];
        } else if (strcmp(argv[i], "--run-seconds") == 0 && i + 1 < argc) {
            runOverride = strtol(argv[++i], nullptr, 10);
        } else {
            fprintf(stderr, "usage: tvdemo [--root DIR] [--run-seconds N]\n");
            return 2;
        }
    }
    if (root.empty() && getenv("TV_REGISTRY")) root = getenv("TV_REGISTRY");
    if (root.empty()) {
        fprintf(stderr, "tvdemo: give --root DIR or set TV_REGISTRY\n");
        return 2;
    }
    if (root.back() != '/') root += '/';
    setenv("TV_REGISTRY", root.c_str(), 1);

    // Signals are taken by the main loop: SIGTERM/SIGINT only set a flag.
    struct sigaction sa = {};
    sa.sa_handler = OnSignal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGTERM, &sa, nullptr);
    sigaction(SIGINT, &sa, nullptr);

    // First run: the install directory gets its registry folder and template.
    CreateDirectory(root.c_str(), nullptr);
    CreateDirectory((root + "registry").c_str(), nullptr);
    const std::string templ = root + "registry/tv.registry.template";
    struct stat st;
    if (stat(templ.c_str(), &st) != 0 && !WriteWholeFile(templ, kTemplate)) {
        fprintf(stderr, "tvdemo: cannot write %s: %s\n", templ.c_str(), strerror(errno));
        return 1;
    }
    InitRegistry(1, 1);  // backup copy, shared state, first read
    Settings settings = LoadSettings(root);
    if (runOverride >= 0) settings.runSeconds = static_cast<unsigned long>(runOverride);
    CreateDirectory(settings.inbox.c_str(), nullptr);
    Log("%s starting: registry %s, inbox %s, %lu workers, run %lus", settings.name.c_str(),
        GetRegistryPath().c_str(), settings.inbox.c_str(), settings.workers, settings.runSeconds);

    // The lazy writer flushes registry changes twice a second.
    static int lazyInterval = 500;
    DWORD tid = 0;
    Handle* lazyWriter = CreateThread(nullptr, 0, RegLazyWriteThread, &lazyInterval, 0, &tid);

    // The directory watcher. The kernel wakes it as soon as the inbox changes;
    // the main loop also wakes it every scan_ms, for file systems that do not
    // report changes.
    WatchDirsThreadObject watcherControl;
    Handle* watcher = CreateThread(nullptr, 0, WatchDirsThread, &watcherControl, 0, &tid);

    HANDLE mapping = nullptr;
    InitLoadBalancingRegion(&mapping, &g_load, "tvdemo");
    PublishLoad();

    TvThreadPool pool(1, settings.workers, ProcessFile, nullptr, nullptr, DropJob, 5000);

    // The inbox through a completion port: arm, collect, re-arm.
    const unsigned long filter = FILE_NOTIFY_CHANGE_FILE_NAME;
    Handle* inbox = FindFirstChangeNotification(settings.inbox.c_str(), 0, filter);
    unsigned long bufferLength = 4096;
    void* buffer = new unsigned char[bufferLength];
    ReadDirectoryChanges(inbox, &buffer, bufferLength, 0, filter, nullptr, nullptr, nullptr);
    Handle* port = CreateIoCompletionPort(inbox, nullptr, 1, 0);

    const unsigned long long started = GetMilliTime();
    unsigned long long lastScan = 0;
    while (!g_stop) {
        if (settings.runSeconds && GetElapsedTime(started) >= settings.runSeconds * 1000ULL) break;
        if (GetElapsedTime(lastScan) >= settings.scanMs) {
            watcherControl.Wake();
            lastScan = GetMilliTime();
        }
        unsigned long bytes = 0, key = 0;
        _OVERLAPPED* ov = nullptr;
        if (GetQueuedCompletionStatus(port, &bytes, &key, &ov, 200)) {
            if (bytes > 0)
                QueueAdded(static_cast<unsigned char*>(buffer), bytes, settings.inbox, pool);
            // A collection disarms the handle: arm it again for the next one.
            ReadDirectoryChanges(inbox, &buffer, bufferLength, 0, filter, nullptr, nullptr,
                                 nullptr);
        }
    }
    Log("stopping%s", g_stop ? " on signal" : " after its run time");

    // Orderly shutdown: no new work, finish what is queued, stop the
    // watcher, then let the lazy writer write once more.
    pool.Shutdown();
    watcherControl.RequestStop();
    WaitForSingleObjectEx(watcher, INFINITE, FALSE);
    CloseHandle(watcher);
    CloseHandle(port);
    CloseHandle(inbox);
    delete[] static_cast<unsigned char*>(buffer);

    RegStopLazyWriter(lazyWriter);  // writes what is still pending
    CloseHandle(lazyWriter);

    char stamp[64];
    SYSTEMTIME now;
    GetSystemTime(&now);
    snprintf(stamp, sizeof stamp, "%04u-%02u-%02uT%02u:%02u:%02uZ", now.wYear, now.wMonth, now.wDay,
             now.wHour, now.wMinute, now.wSecond);
    const std::string ini = root + "tvdemo.ini";
    WritePrivateProfileString("server", "last_stop", stamp, ini.c_str());
    yuWriteAndFreeAllProfiles();

    DetachLoadBalancingRegion(g_load);
    CloseHandle(mapping);
    CleanSystemResources();  // the last process of the host removes them
    Log("stopped");
    return 0;
}
