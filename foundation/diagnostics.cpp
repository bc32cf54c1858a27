// The last-error convention, assertions, abort and console diagnostics.
#include <errno.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <ctype.h>

#include "foundation/diagnostics_internal.h"
#include "tvcommonutil/foundation.h"

// Codes are 32-bit values kept in an int: widen without sign extension, so
// SetLastError(0xdeadbeef) reads back as 0xdeadbeef.
DWORD GetLastError() {
    return static_cast<DWORD>(static_cast<unsigned int>(errno));
}

void SetLastError(DWORD code) {
    errno = static_cast<int>(code);
}

int WSAGetLastError() {
    return errno;
}

int WSASetLastError(int code) {
    errno = code;
    return errno;
}

void initializeThreadId(unsigned long* id) {
    *id = 0;
}

void initializeThreadKey(unsigned int* key) {
    *key = 0;
}

unsigned long getThreadId(unsigned long id) {
    return id;
}

void kw_assert(const char* expr, const char* file, int line) {
    fprintf(stderr, "assertion \"%s\" failed: file \"%s\", line %d\n", expr, file, line);
    kw_abort();
}

void kw_abort() {
    // Block everything but SIGABRT so that no other handler can run in
    // between and the abort is delivered to this very thread.
    sigset_t only_abort;
    sigfillset(&only_abort);
    sigdelset(&only_abort, SIGABRT);
    pthread_sigmask(SIG_SETMASK, &only_abort, nullptr);
    pthread_kill(pthread_self(), SIGABRT);
    // A handler caught it: take the default action and try once more.
    signal(SIGABRT, SIG_DFL);
    pthread_sigmask(SIG_SETMASK, &only_abort, nullptr);
    pthread_kill(pthread_self(), SIGABRT);
    exit(1);
}

int Beep(int frequency, int duration) {
    fprintf(stderr, "Beep( %d, %d ) consider yourself \a beeped\n", frequency, duration);
    return 0;
}

namespace {

// Reads and drops the rest of the current input line.
void DiscardLine(FILE* in) {
    int c;
    do {
        c = fgetc(in);
    } while (c != '\n' && c != EOF);
}

}  // namespace

void AssertPrompt(bool ok, const char* expr, const char* file, int line, FILE* in, FILE* out) {
    if (ok) return;
    char when[1024];
    time_t now = time(nullptr);
    struct tm tmv;
    localtime_r(&now, &tmv);
    strftime(when, 1023, "%D %H:%M:%S", &tmv);
    fprintf(out, "Thread=%d, %s, Assertion in %s, line %i. Expression: %s\n",
            static_cast<int>(pthread_self()), when, file, line, expr);
    for (;;) {
        fprintf(out, "Continue? y/[n] ");
        fflush(out);
        int c = fgetc(in);
        if (c != EOF) c = tolower(c);
        if (c == 'n' || c == EOF || c == '\n') {
            // The replies go to standard output, not to `out`; kept as is.
            printf("Aborting...\n");
            fflush(stdout);
            abort();
        }
        if (c == 'y') {
            DiscardLine(in);
            return;
        }
        printf("Unsupported response. ");
        DiscardLine(in);
    }
}

void unix_err(const char* fmt, ...) {
    char buf[2048];
    va_list ap;
    va_start(ap, fmt);
    vsnprintf(buf, sizeof buf, fmt, ap);
    va_end(ap);
    // The formatted text is used as the output format; callers keep '%' out
    // of their arguments. Passing it as a format is the described behaviour.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-security"
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
    fprintf(stderr, buf);
#pragma GCC diagnostic pop
}

CKWIException::CKWIException(const char* message, const char* where) : prefix_("CKWIException: ") {
    strncpy(where_, where ? where : "", sizeof where_);
    where_[sizeof where_ - 1] = '\0';
    strncpy(message_, message ? message : "", sizeof message_);
    message_[sizeof message_ - 1] = '\0';
}

void CKWIException::response() const {
    fputs(prefix_, stderr);
    if (where_[0] != '\0') {
        fputs(where_, stderr);
        fputs(": ", stderr);
    }
    fputs(message_, stderr);
    fputs("\n", stderr);
    fflush(stderr);
}

namespace tv {
namespace detail {

std::string PercentSafe(const char* s, size_t limit) {
    std::string out;
    for (; s != nullptr && *s != '\0'; ++s) {
        size_t need = *s == '%' ? 2 : 1;
        if (out.size() + need > limit) break;
        if (*s == '%') out += '%';
        out += *s;
    }
    return out;
}

}  // namespace detail
}  // namespace tv
