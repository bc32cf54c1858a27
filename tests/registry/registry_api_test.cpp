// The Reg* functions and CRegistry: result codes, sizes, the documented
// quirks, the guards that keep the file readable, and key notification
// within one process.
#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <strings.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include <tvcommonutil.h>

#include "registry/key_tree.h"
#include "registry_support.h"

namespace {

using namespace regtest;

unsigned long Revision(HKEY h) {
    tv::detail::RegKey* k = tv::detail::LookupHandle(h);
    return k != nullptr ? k->GetRevNumber() : 0;
}

TEST(RegistryApi, OpenCreateAndResultCodes) {
    RegistryEnv env;
    HKEY h = 0;
    EXPECT_EQ(13, RegOpenKeyEx(HKEY_LOCAL_MACHINE, "Missing", 0, 0, &h));
    EXPECT_EQ(13, RegOpenKeyEx(HKEY_LOCAL_MACHINE, "Missing", 0, 0, nullptr));
    EXPECT_EQ(13, RegOpenKeyEx(0x1234567, "x", 0, 0, &h));  // unknown handle
    EXPECT_EQ(-1, RegCreateKeyEx(0x1234567, "x", 0, nullptr, 0, 0, nullptr, &h, nullptr));
    EXPECT_EQ(-1, RegCreateKeyEx(0, "x", 0, nullptr, 0, 0, nullptr, nullptr, nullptr));

    DWORD disp = 0;
    HKEY w = 0;
    ASSERT_EQ(0,
              RegCreateKeyEx(0, "Software\\Vendor", 0, nullptr, 0, KEY_WRITE, nullptr, &w, &disp));
    EXPECT_EQ(REG_CREATED_NEW_KEY, disp);
    EXPECT_NE(0, w & KEY_WRITE_HANDLE_BIT);
    EXPECT_NE(0, w & KEY_INDEX_MASK);
    HKEY again = 0;
    // KEY_READ carries 0x20000, so only a mask without 0x60000 reads only.
    ASSERT_EQ(0, RegCreateKeyEx(0, "SOFTWARE\\vendor", 0, nullptr, 0, KEY_QUERY_VALUE, nullptr,
                                &again, &disp));
    EXPECT_EQ(REG_OPENED_EXISTING_KEY, disp);
    // One key, one number; only the write bit differs.
    EXPECT_EQ(w & KEY_INDEX_MASK, again);
    EXPECT_STREQ("HKEY_LOCAL_MACHINE\\Software\\Vendor", RegHKEYtoString(again).c_str());

    // Two opens share the handle; the first close does not end the second.
    HKEY r1 = 0, r2 = 0;
    ASSERT_EQ(0, RegOpenKeyEx(0, "software\\VENDOR\\", 0, 0, &r1));
    ASSERT_EQ(0, RegOpenKeyEx(w, "", 0, 0, &r2));
    EXPECT_EQ(r1, r2);
    ASSERT_EQ(0, SetSz(w, "Name", "v"));
    EXPECT_EQ(0, RegCloseKey(r1));
    EXPECT_EQ("v", GetSz(r2, "Name"));
    for (HKEY k : {r2, again, w}) EXPECT_EQ(0, RegCloseKey(k));
    EXPECT_EQ(-1, RegCloseKey(w));  // no open left
    EXPECT_EQ(-1, RegCloseKey(0x2345678));
}

TEST(RegistryApi, QuerySizesAndTypes) {
    RegistryEnv env;
    HKEY h = Create("Types");
    ASSERT_EQ(0, SetSz(h, "Sz", "hello"));
    unsigned long dw = 31;
    ASSERT_EQ(0, RegSetValueEx(h, "Dw", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&dw), 8));
    // "a b" is one string with a blank: it comes back as two.
    const char multi[] = "a b\0c\0";
    ASSERT_EQ(0, RegSetValueEx(h, "Multi", 0, REG_MULTI_SZ, reinterpret_cast<const BYTE*>(multi),
                               sizeof multi));
    const char empty[] = "\0\0";
    ASSERT_EQ(0, RegSetValueEx(h, "EmptyMulti", 0, REG_MULTI_SZ,
                               reinterpret_cast<const BYTE*>(empty), sizeof empty));

    DWORD type = 0, size = 0;
    auto query = [&](const char* name, void* buf, DWORD room, HKEY key) {
        type = 0;
        size = room;
        return RegQueryValueEx(key, name, nullptr, &type, static_cast<BYTE*>(buf), &size);
    };
    char buf[32];
    unsigned long out = 0;
    EXPECT_EQ(0, query("Sz", nullptr, 0, h));
    EXPECT_EQ(REG_SZ, type);
    EXPECT_EQ(6u, size);
    EXPECT_EQ(234, query("Sz", buf, 4, h));
    EXPECT_EQ(6u, size);
    EXPECT_EQ(13, query("Nope", nullptr, 0, h));
    EXPECT_EQ(-1, query("Sz", nullptr, 0, 0x3456789));
    EXPECT_EQ(234, query("Dw", &out, 4, h));  // "more data" still tells the type and the size
    EXPECT_EQ(8u, size);
    EXPECT_EQ(REG_DWORD, type);
    EXPECT_EQ(0, query("Dw", &out, 8, h));
    EXPECT_EQ(REG_DWORD, type);
    EXPECT_EQ(31u, out);
    ASSERT_EQ(0, query("Multi", buf, sizeof buf, h));
    EXPECT_EQ(REG_MULTI_SZ, type);
    EXPECT_EQ(std::string("a\0b\0c\0\0", 7), std::string(buf, size));
    ASSERT_EQ(0, query("EmptyMulti", buf, sizeof buf, h));
    EXPECT_EQ(1u, size);

    // A DWORD of 31: "0x1f" through RegSetValueEx, "31" through a batch.
    std::list<RegValueList> batch;
    unsigned long b31 = 31;
    ASSERT_EQ(0, RegSetValueNode("Batch", REG_DWORD, &b31, batch));
    ASSERT_EQ(0, RegSetValueNode("BatchSz", REG_SZ, "text", batch));
    ASSERT_EQ(0, RegSetValueNode("BatchMulti", REG_MULTI_SZ, "x\0y\0", batch));
    EXPECT_EQ(-1, RegSetValueNode("Bin", REG_BINARY, "x", batch));
    ASSERT_EQ(0, RegBatchSetValueEx(h, batch));
    ASSERT_EQ(0, query("Batch", &out, sizeof out, h));
    EXPECT_EQ(31u, out);
    EXPECT_EQ(0, RegCloseKey(h));
    const std::string file = env.ReadRegistryFile();
    EXPECT_TRUE(Has(file, "0x1f;\tREG_DWORD\n"));
    EXPECT_TRUE(Has(file, " 31;\tREG_DWORD\n"));
    EXPECT_TRUE(Has(file, " x y ;\tREG_MULTI_SZ\n"));

    unsigned char bin[2] = {1, 2};
    h = Create("Types");
    EXPECT_EQ(-1, RegSetValueEx(h, "Bin", 0, REG_BINARY, bin, 2));
    EXPECT_EQ(ERROR_NOT_SUPPORTED, static_cast<long>(errno));
    EXPECT_EQ(0, RegCloseKey(h));
}

TEST(RegistryApi, EnumerationAndInfo) {
    RegistryEnv env;
    HKEY h = Create("Enum");
    for (const char* k : {"Zeta", "alpha", "Mid"}) RegCloseKey(Create(k, h));
    ASSERT_EQ(0, SetSz(h, "second", "22"));
    ASSERT_EQ(0, SetSz(h, "First", "1"));
    ASSERT_EQ(0, SetSz(h, "second", "2"));  // keeps its place

    char name[16];
    for (DWORD i : {0, 2, 1}) {  // subkeys in order of creation, in any order of asking
        ASSERT_EQ(0, RegEnumKey(h, i, name, sizeof name));
        EXPECT_STREQ(i == 0 ? "Zeta" : i == 1 ? "alpha" : "Mid", name);
    }
    EXPECT_EQ(259, RegEnumKey(h, 3, name, sizeof name));
    EXPECT_EQ(-1, RegEnumKey(h, 0, name, 4));  // "Zeta" needs 5: -1, never 234
    EXPECT_EQ(0, RegEnumKey(h, 0, name, 5));
    EXPECT_EQ(-1, RegEnumKey(h, 0, nullptr, 16));
    EXPECT_EQ(-1, RegEnumKey(0x3456789, 0, name, 16));

    // Values in order of first setting.
    char data[8];
    DWORD cbName = sizeof name, type = 0, cbData = sizeof data;
    ASSERT_EQ(0, RegEnumValue(h, 0, name, &cbName, nullptr, &type, reinterpret_cast<BYTE*>(data),
                              &cbData));
    EXPECT_STREQ("second", name);
    EXPECT_EQ(6u, cbName);
    EXPECT_STREQ("2", data);
    EXPECT_EQ(2u, cbData);
    cbName = 3;
    EXPECT_EQ(234, RegEnumValue(h, 1, name, &cbName, nullptr, &type, nullptr, nullptr));
    EXPECT_EQ(6u, cbName);
    cbName = sizeof name;
    EXPECT_EQ(259, RegEnumValue(h, 2, name, &cbName, nullptr, &type, nullptr, nullptr));

    // A deleted subkey drops out of the enumeration at once.
    ASSERT_EQ(0, RegDeleteKey(h, "Zeta"));
    ASSERT_EQ(0, RegEnumKey(h, 0, name, sizeof name));
    EXPECT_STREQ("alpha", name);

    DWORD subKeys = 0, maxSub = 0, values = 0, maxName = 0, maxData = 0;
    ASSERT_EQ(0, RegQueryInfoKey(h, nullptr, nullptr, nullptr, &subKeys, &maxSub, nullptr, &values,
                                 &maxName, &maxData, nullptr, nullptr));
    EXPECT_EQ(2u, subKeys);
    EXPECT_EQ(5u, maxSub);
    EXPECT_EQ(2u, values);
    EXPECT_EQ(6u, maxName);
    EXPECT_EQ(2u, maxData);
    EXPECT_EQ(-1, RegQueryInfoKey(0x3456789, nullptr, nullptr, nullptr, &subKeys, nullptr, nullptr,
                                  nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_EQ(0, RegCloseKey(h));
}

// Random settings, respellings and deletions of a key's values against a
// plain model: enumeration keeps the order of first setting, a name matches
// in any case (the last spelling set wins), and the file lists the values
// by name without regard to case.
TEST(RegistryApi, ValuesFollowAModelThroughSetsAndDeletes) {
    RegistryEnv env;
    HKEY h = Create("Model");
    std::vector<std::pair<std::string, std::string>> model;  // in order of first setting
    auto find = [&](const std::string& n) {
        for (size_t i = 0; i < model.size(); ++i)
            if (strcasecmp(model[i].first.c_str(), n.c_str()) == 0) return static_cast<int>(i);
        return -1;
    };
    unsigned seed = 7;
    for (int step = 0; step < 400; ++step) {
        seed = seed * 1103515245u + 12345u;
        std::string name = "v" + std::to_string((seed >> 8) % 12);
        if ((seed >> 4) & 1) name[0] = 'V';
        const int at = find(name);
        if ((seed >> 16) % 4 == 0) {
            EXPECT_EQ(at >= 0 ? 0 : -1, RegDeleteValue(h, name.c_str()));
            if (at >= 0) model.erase(model.begin() + at);
        } else {
            const std::string data = std::string((seed >> 20) % 60, 'x') + std::to_string(step);
            ASSERT_EQ(0, SetSz(h, name, data));
            if (at >= 0)
                model[static_cast<size_t>(at)] = {name, data};
            else
                model.emplace_back(name, data);
        }
        ASSERT_EQ(model.size(), ValueCount(h));
        for (size_t i = 0; i < model.size(); ++i) {
            char n[16], d[64];
            DWORD cbName = sizeof n, cbData = sizeof d, type = 0;
            ASSERT_EQ(0, RegEnumValue(h, static_cast<DWORD>(i), n, &cbName, nullptr, &type,
                                      reinterpret_cast<BYTE*>(d), &cbData));
            EXPECT_EQ(model[i].first, n);
            EXPECT_EQ(model[i].second, d);
            std::string other = model[i].first;
            other[0] = static_cast<char>(other[0] ^ 0x20);
            EXPECT_EQ(model[i].second, GetSz(h, other));
        }
    }
    ASSERT_EQ(0, RegFlushKey(h));
    const std::string out = env.ReadRegistryFile();
    size_t pos = out.find("HKEY_LOCAL_MACHINE\\Model=");
    ASSERT_NE(std::string::npos, pos);
    std::vector<std::string> sorted;
    for (auto& kv : model) sorted.push_back(kv.first);
    std::sort(sorted.begin(), sorted.end(), [](const std::string& a, const std::string& b) {
        return strcasecmp(a.c_str(), b.c_str()) < 0;
    });
    for (const std::string& n : sorted) {
        const size_t next = out.find("\n" + n + "=", pos);
        ASSERT_NE(std::string::npos, next) << n;
        pos = next;
    }
    RegCloseKey(h);
}

TEST(RegistryApi, DeleteKeyRules) {
    RegistryEnv env;
    RegCloseKey(Create("Software\\Old\\Leaf"));
    RegCloseKey(Create("Software\\Keep"));
    EXPECT_EQ(-1, RegDeleteKey(0, "Software"));  // no parent path
    EXPECT_EQ(-1, RegDeleteKey(0, "Nowhere\\Old"));

    HKEY ro = Open("Software", KEY_READ & ~0x60000);
    EXPECT_EQ(0, ro & KEY_WRITE_HANDLE_BIT);
    EXPECT_EQ(-1, RegDeleteKey(ro, "Keep"));  // no write access
    EXPECT_EQ(0, RegCloseKey(ro));

    EXPECT_EQ(0, RegDeleteKey(0, "SOFTWARE\\OLD"));
    EXPECT_FALSE(KeyExists("Software\\Old") || KeyExists("Software\\Old\\Leaf"));
    EXPECT_TRUE(KeyExists("Software\\Keep"));
    const std::string file = env.ReadRegistryFile();
    EXPECT_FALSE(Has(file, "Old"));
    EXPECT_TRUE(Has(file, "Software\\Keep="));

    HKEY sw = Create("Software");
    EXPECT_EQ(-1, RegDeleteKey(sw, "Missing"));
    // Names match without regard to case: a value or subkey deleted under
    // another spelling leaves the enumeration as well.
    ASSERT_EQ(0, RegSetValueEx(sw, "Alpha", 0, REG_SZ, reinterpret_cast<const BYTE*>("1"), 2));
    ASSERT_EQ(0, RegDeleteValue(sw, "ALPHA"));
    char n[16];
    DWORD cb = sizeof n, type = 0;
    EXPECT_EQ(259, RegEnumValue(sw, 0, n, &cb, nullptr, &type, nullptr, nullptr));
    ASSERT_EQ(0, RegSetValueEx(sw, "alpha", 0, REG_SZ, reinterpret_cast<const BYTE*>("2"), 2));
    EXPECT_EQ(0, RegEnumValue(sw, 0, n, &cb, nullptr, &type, nullptr, nullptr));
    cb = sizeof n;
    EXPECT_EQ(259, RegEnumValue(sw, 1, n, &cb, nullptr, &type, nullptr, nullptr));
    ASSERT_EQ(0, RegDeleteKey(sw, "KEEP"));
    EXPECT_EQ(259, RegEnumKey(sw, 0, n, sizeof n));
    EXPECT_EQ(0, RegCloseKey(sw));
}

// A deleted key still open stays reachable through its handle, is not
// written, and comes back to life when opened again.
TEST(RegistryApi, DeletedKeyWhileOpen) {
    RegistryEnv env;
    HKEY parent = Create("P");
    HKEY child = Create("C", parent);
    ASSERT_EQ(0, SetSz(child, "V", "1"));
    ASSERT_EQ(0, RegDeleteKey(parent, "C"));
    EXPECT_EQ("1", GetSz(child, "V"));
    EXPECT_EQ(-1, SetSz(child, "W", "2"));
    EXPECT_EQ(ERROR_KEY_DELETED, static_cast<long>(errno));
    ASSERT_EQ(0, RegFlushKey(parent));
    EXPECT_FALSE(Has(env.ReadRegistryFile(), "\\P\\C="));

    // Opening it again revives it, values and all.
    HKEY again = Create("C", parent);
    EXPECT_EQ(child, again);
    EXPECT_EQ("1", GetSz(again, "V"));
    EXPECT_EQ(0, RegCloseKey(again));
    EXPECT_TRUE(Has(env.ReadRegistryFile(), "\\P\\C="));

    // Deleted again and closed for the last time: gone from the tree.
    ASSERT_EQ(0, RegDeleteKey(parent, "C"));
    EXPECT_EQ(0, RegCloseKey(child));
    EXPECT_EQ(-1, RegCloseKey(child));
    EXPECT_FALSE(KeyExists("P\\C"));
    EXPECT_EQ(0, RegCloseKey(parent));
    EXPECT_FALSE(Has(env.ReadRegistryFile(), "\\P\\C="));
}

TEST(RegistryApi, UnchangedValueDoesNotDirtyTheKey) {
    RegistryEnv env;
    HKEY h = Create("Same");
    ASSERT_EQ(0, SetSz(h, "V", "x"));
    EXPECT_EQ(0, RegCloseKey(h));
    struct stat before, after;
    ASSERT_EQ(0, stat(env.registryFile().c_str(), &before));
    h = Create("Same");
    const unsigned long rev = Revision(h);
    ASSERT_EQ(0, SetSz(h, "V", "x"));
    EXPECT_EQ(rev, Revision(h));
    EXPECT_EQ(0, RegCloseKey(h));
    ASSERT_EQ(0, stat(env.registryFile().c_str(), &after));
    EXPECT_EQ(before.st_ino, after.st_ino);  // not rewritten
    h = Create("Same");
    ASSERT_EQ(0, SetSz(h, "V", "y"));
    EXPECT_GT(Revision(h), rev);
    EXPECT_EQ(0, RegCloseKey(h));
}

// Texts the file could not hold as one line of their own are refused, and
// the registry stays as it was.
TEST(RegistryApi, RefusesValuesTheFileCannotHold) {
    RegistryEnv env;
    HKEY h = Create("Guard");
    ASSERT_EQ(0, SetSz(h, "Ok", "fine"));
    ASSERT_EQ(0, RegFlushKey(h));
    const std::string before = env.ReadRegistryFile();
    const std::pair<std::string, std::string> refused[] = {
        {"Inject", "x;REG_SZ\nHKEY_LOCAL_MACHINE\\Evil=5"},
        {"Path", "HKEY_LOCAL_MACHINE\\Software"},
        {"#Comment", "x"},
        {"Big", std::string(4100, 'z')},
        {"NearlyBig", std::string(4095 - 23 - 1 - 1 - 6 + 1, 'z')},
        {"a=b", "x"},
        {"Cr\r", "x"},
        {" Lead", "x"},
        {"Trail\t", "x"},
        {"Semi", "a;b"},
        {"CrData", "a\rb"},
        {"Blank", " x"},
        {"Blank", "x "},
    };
    for (const auto& r : refused) {
        errno = 0;
        EXPECT_EQ(ERROR_INVALID_PARAMETER, SetSz(h, r.first.c_str(), r.second)) << r.first;
        EXPECT_EQ(EINVAL, errno) << r.first;
        EXPECT_NE(nullptr, RegValueTextProblem(r.first.c_str(), r.second.c_str(), REG_SZ));
    }
    EXPECT_EQ(0, SetSz(h, "NearlyBig", std::string(4095 - 23 - 1 - 1 - 6, 'z')));
    std::list<RegValueList> batch;
    RegSetValueNode("Good", REG_SZ, "g", batch);
    RegSetValueNode("Bad", REG_SZ, "a\nb", batch);
    EXPECT_EQ(-1, RegBatchSetValueEx(h, batch));
    EXPECT_EQ("<13>", GetSz(h, "Good"));  // all or nothing
    HKEY k = 0;
    for (const std::string& key :
         {std::string("a=b"), std::string("a\nb"), std::string(4100, 'k')}) {
        EXPECT_EQ(-1, RegCreateKeyEx(h, key.c_str(), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, &k,
                                     nullptr));
        EXPECT_NE(nullptr, RegKeyPathProblem(("HKEY_LOCAL_MACHINE\\" + key).c_str()));
    }
    EXPECT_EQ(0, RegDeleteValue(h, "NearlyBig"));
    EXPECT_EQ(-1, RegDeleteValue(h, "NearlyBig"));
    EXPECT_EQ(0, RegCloseKey(h));
    EXPECT_EQ(before, env.ReadRegistryFile());
}

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
    for (Event* ev : {e, e2}) {
        ev->SetEventData(-1);
        CloseHandle(ev);
    }
    RegCloseKey(r);
    RegCloseKey(w);
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
    EXPECT_FALSE(reg.SetValue("a=b", "x"));  // refused as the API refuses it
    EXPECT_EQ(ERROR_INVALID_PARAMETER, reg.GetLastResult());
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
    EXPECT_FALSE(KeyExists("Software\\Software"));
    EXPECT_TRUE(KeyExists("Software\\Typed"));
    EXPECT_TRUE(sw.DeleteSubKey("Typed"));
    EXPECT_FALSE(sw.Delete());  // nothing of that name left
}

}  // namespace
