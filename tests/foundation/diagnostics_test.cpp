#include <errno.h>
#include <gtest/gtest.h>
#include <stdio.h>
#include <string.h>

#include <string>
#include <thread>

#include <tvcommonutil.h>

namespace {

// Runs fn with stderr redirected into a string.
template <typename Fn>
std::string CaptureStderr(Fn fn) {
    testing::internal::CaptureStderr();
    fn();
    fflush(stderr);
    return testing::internal::GetCapturedStderr();
}

}  // namespace

TEST(LastError, IsErrnoItself) {
    errno = ENOENT;
    EXPECT_EQ(static_cast<DWORD>(ENOENT), GetLastError());
    EXPECT_EQ(ENOENT, WSAGetLastError());
    EXPECT_EQ(ERROR_MORE_DATA, WSASetLastError(ERROR_MORE_DATA));
    EXPECT_EQ(ERROR_MORE_DATA, errno);
    SetLastError(ERROR_INVALID_HANDLE);
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());
    SetLastError(0xdeadbeef);  // a 32-bit code reads back without sign extension
    EXPECT_EQ(0xdeadbeefUL, GetLastError());
    // A failing call stores its code where GetLastError reads it.
    EXPECT_EQ(FALSE, CloseHandle(nullptr) ? TRUE : (errno = ERROR_INVALID_HANDLE, FALSE));
    EXPECT_EQ(static_cast<DWORD>(ERROR_INVALID_HANDLE), GetLastError());

    unsigned long id = 5;
    unsigned int key = 5;
    initializeThreadId(&id);
    initializeThreadKey(&key);
    EXPECT_EQ(0u, id);
    EXPECT_EQ(0u, key);
    EXPECT_EQ(1234ul, getThreadId(1234));
}

TEST(Diagnostics, ExceptionTextsAndLimits) {
    EXPECT_EQ("CKWIException: Bad value\n",
              CaptureStderr([] { CKWIException("Bad value", "").response(); }));
    EXPECT_EQ("CKWIException: Open: Bad value\n",
              CaptureStderr([] { CKWIException("Bad value", "Open").response(); }));
    std::string longText(100, 'x');
    CKWIException e(longText.c_str(), longText.c_str());
    EXPECT_EQ(std::string(79, 'x'), e.message());
    EXPECT_EQ(std::string(79, 'x'), e.where());
    EXPECT_STREQ("CKWIException: ", e.prefix());
}

TEST(Diagnostics, BeepAndUnixErr) {
    std::string out = CaptureStderr([] { EXPECT_EQ(0, Beep(440, 100)); });
    EXPECT_EQ("Beep( 440, 100 ) consider yourself \a beeped\n", out);
    // No newline is added; the text is written as formatted.
    EXPECT_EQ("cannot open /x/y, 2",
              CaptureStderr([] { unix_err("cannot open %s, %d", "/x/y", 2); }));
    // The buffer holds 2048 bytes; longer texts are cut, never overflowed.
    std::string big(5000, 'a');
    EXPECT_EQ(2047u, CaptureStderr([&] { unix_err("%s", big.c_str()); }).size());
}

TEST(Diagnostics, AssertPromptDialogue) {
    char inbuf[] = "q\ny and the rest\n";
    FILE* in = fmemopen(inbuf, strlen(inbuf), "r");
    char* outbuf = nullptr;
    size_t outlen = 0;
    FILE* out = open_memstream(&outbuf, &outlen);
    testing::internal::CaptureStdout();
    AssertPrompt(false, "x > 0", "file.cpp", 12, in, out);
    std::string replies = testing::internal::GetCapturedStdout();
    fclose(out);
    std::string prompt(outbuf, outlen);
    free(outbuf);
    EXPECT_NE(std::string::npos,
              prompt.find(", Assertion in file.cpp, line 12. Expression: x > 0\n"));
    EXPECT_EQ(0u, prompt.find("Thread="));
    // Asked twice: once answered with an unsupported reply, then y.
    size_t first = prompt.find("Continue? y/[n] ");
    ASSERT_NE(std::string::npos, first);
    EXPECT_NE(std::string::npos, prompt.find("Continue? y/[n] ", first + 1));
    EXPECT_EQ("Unsupported response. ", replies);
    // The rest of the accepted line was consumed.
    EXPECT_EQ(EOF, fgetc(in));
    fclose(in);
    // A true condition returns at once without touching the streams.
    AssertPrompt(true, "x", "f", 1, nullptr, nullptr);
}

TEST(DiagnosticsDeath, AssertAndAbortEndTheProcess) {
    EXPECT_DEATH(kw_assert("a == b", "x.cpp", 7),
                 "assertion \"a == b\" failed: file \"x.cpp\", line 7");
    // Even with a handler that swallows SIGABRT, kw_abort still ends the process.
    EXPECT_DEATH(
        {
            signal(SIGABRT, [](int) {});
            kw_abort();
        },
        "");
    char empty[] = "\n";
    EXPECT_DEATH(
        {
            FILE* in = fmemopen(empty, 1, "r");
            AssertPrompt(false, "e", "f", 1, in, stderr);
        },
        "Continue");
}

TEST(ThreadContext, OnePerThreadAndSettersReleaseTheOldValue) {
    ThreadContext* mine = GetThreadContext();
    EXPECT_EQ(mine, GetThreadContext());
    ThreadContext* other = nullptr;
    std::thread([&] { other = GetThreadContext(); }).join();
    EXPECT_NE(mine, other);

    std::thread([] {
        ThreadContext* ctx = GetThreadContext();
        Event* first = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
        first->IncRefCount();  // keep it alive to observe the release
        ctx->SetRegEvent(first);
        EXPECT_EQ(2, first->GetRefCount());
        ctx->SetRegEvent(static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr)));
        EXPECT_EQ(1, first->GetRefCount()) << "the old event was closed";
        CloseHandle(first);
        unsigned int* seed = new unsigned int(3);
        ctx->SetRandBase(seed);
        EXPECT_EQ(seed, ctx->GetRandBase());
        ctx->SetRandBase(new unsigned int(4));  // frees the first cell
        EXPECT_EQ(4u, *ctx->GetRandBase());
    }).join();
}
