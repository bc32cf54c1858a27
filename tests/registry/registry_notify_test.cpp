// Key change notification and CRegistry.
#include <gtest/gtest.h>

#include <string.h>

#include <atomic>
#include <string>
#include <thread>

#include <tvcommonutil.h>

#include "registry/registry_internal.h"
#include "registry_support.h"
#include "thread_probe.h"

namespace {

using namespace regtest;

TEST(RegistryNotify, SecondCallSignalsAfterAChange) {
    RegistryEnv env;
    HKEY w = Create("Watched");
    HKEY r = Create("Watched", 0, 0);  // no write bit: the handle compared as passed
    Event* e = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));

    EXPECT_EQ(-1, RegNotifyChangeKeyValue(0x3456789, FALSE, 0, e, TRUE));
    // The first call attaches and stamps the event; it does not signal.
    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, TRUE, 0, e, TRUE));
    EXPECT_EQ(0, e->EventIsSignaled());
    EXPECT_EQ(r, e->GetEventData());
    // Unchanged key: nothing.
    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, TRUE, 0, e, TRUE));
    EXPECT_EQ(0, e->EventIsSignaled());
    ASSERT_EQ(0, SetSz(w, "V", "1"));
    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, TRUE, 0, e, TRUE));
    EXPECT_EQ(1, e->EventIsSignaled());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObjectEx(e, 0, FALSE));
    // Reported once per change.
    ASSERT_EQ(0, RegNotifyChangeKeyValue(r, TRUE, 0, e, TRUE));
    EXPECT_EQ(0, e->EventIsSignaled());

    // With the write bit the comparison never matches: no early signal.
    Event* e2 = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    ASSERT_EQ(0, RegNotifyChangeKeyValue(w, TRUE, 0, e2, TRUE));
    ASSERT_EQ(0, SetSz(w, "V", "2"));
    ASSERT_EQ(0, RegNotifyChangeKeyValue(w, TRUE, 0, e2, TRUE));
    EXPECT_EQ(0, e2->EventIsSignaled());

    EXPECT_EQ(0, RegUnnotifyChangeKeyValue(r, e));
    EXPECT_EQ(0, RegCallbackStub(nullptr));
    EXPECT_EQ(0, RegWatchFile(1000, RegCallbackStub, nullptr));
    for (Event* ev : {e, e2}) {
        ev->SetEventData(-1);
        CloseHandle(ev);
    }
    RegCloseKey(r);
    RegCloseKey(w);
}

// A synchronous call blocks until the event is set from elsewhere: the
// first call on a key never signals by itself.
TEST(RegistryNotify, SynchronousCallWaits) {
    RegistryEnv env;
    HKEY r = Create("Sync", 0, 0);
    Event* e = static_cast<Event*>(CreateEvent(nullptr, FALSE, FALSE, nullptr));
    std::atomic<pid_t> tid{0};
    std::atomic<LONG> result{-5};
    std::thread waiter([&] {
        tid = tvtest::CurrentTid();
        result = RegNotifyChangeKeyValue(r, FALSE, 0, e, FALSE);
    });
    while (tid == 0) std::this_thread::yield();
    ASSERT_TRUE(tvtest::WaitUntilSleeping(tid));
    EXPECT_EQ(-5, result.load());
    SetEvent(e);
    waiter.join();
    EXPECT_EQ(0, result.load());
    // Without an event the thread's own registry event is used.
    std::thread own([&] { result = RegNotifyChangeKeyValue(r, FALSE, 0, nullptr, TRUE); });
    own.join();
    EXPECT_EQ(0, result.load());
    e->SetEventData(-1);
    CloseHandle(e);
    RegCloseKey(r);
}

TEST(CRegistryTest, TypedAccess) {
    RegistryEnv env;
    {
        CRegistry none(0, nullptr, 0);  // no call at all
        EXPECT_EQ(0, none.GetHandle());
        EXPECT_EQ(0, none.GetLastResult());
    }
    DWORD disp = 0;
    CRegistry reg(0, "Software\\Typed", &disp, 0);
    ASSERT_EQ(0, reg.GetLastResult());
    EXPECT_EQ(REG_CREATED_NEW_KEY, disp);
    EXPECT_NE(0, reg.GetHandle() & KEY_WRITE_HANDLE_BIT);

    EXPECT_TRUE(reg.SetValue("Dword", 0x100UL));
    int flag = 0;
    EXPECT_TRUE(reg.GetValue("Dword", flag));
    EXPECT_EQ(1, flag);
    unsigned long n = 0;
    EXPECT_TRUE(reg.GetValue("Dword", &n));
    EXPECT_EQ(0x100u, n);
    EXPECT_FALSE(reg.GetValue("Dword", static_cast<unsigned long*>(nullptr)));
    const int seven = 7;
    EXPECT_TRUE(reg.SetValue("Bool", seven));
    EXPECT_TRUE(reg.GetValue("Bool", n));
    EXPECT_EQ(1u, n);
    EXPECT_TRUE(reg.SetValue("Sz", "text"));
    unsigned char buf[16];
    unsigned long size = sizeof buf;
    EXPECT_TRUE(reg.GetValue("Sz", buf, size));
    EXPECT_STREQ("text", reinterpret_cast<char*>(buf));
    unsigned long multiSize = 6;
    EXPECT_TRUE(reg.SetValue("Multi", "a\0bc\0", multiSize));
    unsigned char bin[2] = {1, 2};
    unsigned long binSize = 2;
    EXPECT_FALSE(reg.SetValue("Bin", bin, binSize));
    EXPECT_EQ(-1, reg.GetLastResult());
    EXPECT_FALSE(reg.GetValue("Missing", n));
    EXPECT_EQ(ERROR_INVALID_DATA, reg.GetLastResult());

    SharedBasicString<char> s;
    EXPECT_TRUE(reg.GetValue("Sz", s));
    EXPECT_EQ(std::string("text", 5), s.str());  // the size the query reported
    EXPECT_TRUE(reg.SetValue("Long", std::string(1024, 'x').c_str()));
    EXPECT_FALSE(reg.GetValue("Long", s));
    EXPECT_EQ(ERROR_MORE_DATA, reg.GetLastResult());
    EXPECT_TRUE(reg.SetValue("Long", std::string(1023, 'x').c_str()));
    EXPECT_TRUE(reg.GetValue("Long", s));
    EXPECT_EQ(1024u, s.str().size());

    EXPECT_TRUE(reg.DeleteValue("Sz"));
    EXPECT_FALSE(reg.GetValue("Sz", buf, size));

    {
        CRegistry ro(0, "Software\\Typed", 1);
        EXPECT_EQ(0, ro.GetLastResult());
        EXPECT_EQ(0, ro.GetHandle() & KEY_WRITE_HANDLE_BIT);
        EXPECT_TRUE(ro.GetValue("Dword", n));
        EXPECT_FALSE(ro.DeleteSubKey("x"));
        EXPECT_FALSE(ro.DeleteSubKey(nullptr));
    }
    // Delete() removes the child bearing the key's own subkey path as its
    // name, not the key itself.
    RegCloseKey(Create("Software\\Software\\Inner"));
    CRegistry sw(0, "Software", 0);
    EXPECT_TRUE(sw.Delete());
    HKEY h = 0;
    EXPECT_EQ(13, RegOpenKeyEx(0, "Software\\Software", 0, 0, &h));
    EXPECT_EQ(0, RegOpenKeyEx(0, "Software\\Typed", 0, 0, &h));
    RegCloseKey(h);
    EXPECT_TRUE(sw.DeleteSubKey("Typed"));
    EXPECT_FALSE(sw.Delete());  // nothing of that name left
}

}  // namespace
