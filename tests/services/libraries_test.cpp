#include <dlfcn.h>
#include <errno.h>
#include <gtest/gtest.h>
#include <link.h>
#include <nl_types.h>
#include <stdlib.h>
#include <string.h>
#include <unistd.h>

#include <string>

#include <tvcommonutil.h>

#include "test_support.h"

namespace {

// The real file behind libm.so.6, a library present on every host.
std::string LibmPath() {
    void* h = dlopen("libm.so.6", RTLD_LAZY);
    if (h == nullptr) return "";
    link_map* map = nullptr;
    std::string path;
    if (dlinfo(h, RTLD_DI_LINKMAP, &map) == 0 && map && map->l_name) path = map->l_name;
    dlclose(h);
    return path;
}

using CosFn = double (*)(double);

}  // namespace

TEST(Libraries, WindowsExtensionsRetryOnlyExactSpellings) {
    std::string libm = LibmPath();
    ASSERT_FALSE(libm.empty());
    tvtest::TempDir dir;
    ASSERT_EQ(0, symlink(libm.c_str(), dir.file("libtvx.SO").c_str()));
    ASSERT_EQ(0, symlink(libm.c_str(), dir.file("libtvy.so").c_str()));

    // "libtvx.DLL" does not exist as such: loaded as "libtvx.SO".
    HMODULE h = LoadLibraryEx(dir.file("libtvx.DLL").c_str(), nullptr, 0);
    ASSERT_NE(nullptr, h);
    auto cosine = reinterpret_cast<CosFn>(GetProcAddress(h, "cos"));
    ASSERT_NE(nullptr, cosine);
    EXPECT_EQ(1.0, cosine(0.0));
    EXPECT_EQ(nullptr, GetProcAddress(h, "tv_no_such_symbol"));
    EXPECT_EQ(1, FreeLibrary(h));

    h = LoadLibrary(dir.file("libtvy.dll").c_str());
    EXPECT_NE(nullptr, h);
    EXPECT_EQ(1, FreeLibrary(h));

    // Mixed case is not retried; lower case maps only to lower case.
    EXPECT_EQ(nullptr, LoadLibrary(dir.file("libtvx.Dll").c_str()));
    EXPECT_EQ(nullptr, LoadLibrary(dir.file("libtvx.dll").c_str()));
    EXPECT_EQ(nullptr, LoadLibrary(dir.file("libtvy.DLL").c_str()));
    EXPECT_EQ(nullptr, LoadLibrary(dir.file("libtvx").c_str()));
    // A failure leaves no loader error behind for the caller to trip over.
    EXPECT_EQ(nullptr, dlerror());

    // Plain names go through the loader's search.
    h = LoadLibrary("libm.so.6");
    EXPECT_NE(nullptr, h);
    EXPECT_EQ(1, FreeLibrary(h));
    EXPECT_EQ(1, FreeLibrary(nullptr));
    EXPECT_EQ(nullptr, LoadLibrary(nullptr));
}

TEST(Libraries, MessageCatalogs) {
    tvtest::TempDir dir;
    // A missing catalog is reported on stderr in the product's words.
    std::string missing = dir.file("missing.cat");
    testing::internal::CaptureStderr();
    HMODULE h = LoadLibraryEx(missing.c_str(), nullptr, 1);
    int err = errno;
    std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(nullptr, h);
    EXPECT_EQ(
        "LoadLibraryEx: Failed to open msg catlog " + missing + ", errno: " + strerror(err) + "\n",
        said);

    if (system("command -v gencat >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "gencat is not installed; cannot build a catalog";
    }
    tvtest::WriteFile(dir.file("msgs.txt"), "$set 1\n1 Hello from the catalog\n");
    std::string cmd = "gencat " + dir.file("msgs.cat") + " " + dir.file("msgs.txt");
    ASSERT_EQ(0, system(cmd.c_str()));

    h = LoadLibraryEx(dir.file("msgs.cat").c_str(), nullptr, 1);
    ASSERT_NE(nullptr, h);
    nl_catd cat = static_cast<nl_catd>(static_cast<void*>(h));
    EXPECT_STREQ("Hello from the catalog", catgets(cat, 1, 1, "missing"));
    // A catalog handle is not a loader handle.
    EXPECT_EQ(nullptr, GetProcAddress(h, "cos"));
    EXPECT_EQ(1, FreeLibrary(h));
}
