// Round trips of real configuration files shipped by Debian packages (kept in
// data/): load, read, set one existing key, flush. The result must be the
// file's ".written" companion: the original with that one line changed, every
// line trimmed of blanks, tabs, CR and LF at both ends, and one empty line
// closing every section that did not already end in one.
#include <unistd.h>

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_test_util.h"

using profiletest::Get;

namespace {

std::string DataFile(const std::string& name) {
    // __FILE__ may be relative to the build directory (ccache base_dir), one
    // level above where the tests run.
    std::string here = __FILE__;
    std::string p = here.substr(0, here.rfind('/')) + "/data/" + name;
    if (p[0] != '/' && access(p.c_str(), R_OK) != 0) p = "../" + p;
    return p;
}

TEST(ProfileRoundTrip, DebianFilesReadAsMeantAndChangeOnlyInTheSetLineAndTrimming) {
    const struct {
        const char* file;
        const char *section, *key, *value;         // the set
        const char *readSection, *readKey, *read;  // a value as its package means it
    } cases[] = {
        // samba-common: ';' and '#' comments, indented keys with blanks in them
        {"smb.conf", "global", "workgroup", "EXAMPLE", "global", "log file",
         "/var/log/samba/log.%m"},
        // systemd: a unit file whose header comments contain ';'
        {"systemd-timesyncd.service", "Service", "restart", "on-failure", "install", "wantedby",
         "sysinit.target"},
        // e2fsprogs: tab-indented keys, nested braces as plain lines
        {"mke2fs.conf", "defaults", "blocksize", "1024", "defaults", "inode_size", "256"},
        // xdg-user-dirs: a section name with a blank
        {"xdg-user-dirs.desktop", "Desktop Entry", "NoDisplay", "false", "Desktop Entry",
         "X-KDE-autostart-phase", "1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.file);
        profiletest::ProfileDir dir;
        std::string original = tvtest::ReadFile(DataFile(c.file));
        ASSERT_FALSE(original.empty());
        std::string f = dir.file(c.file);
        tvtest::WriteFile(f, original);
        EXPECT_EQ(Get(c.readSection, c.readKey, f), c.read);
        ASSERT_EQ(WritePrivateProfileString(c.section, c.key, c.value, f.c_str()), 1);
        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
        std::string written = tvtest::ReadFile(f);
        EXPECT_EQ(written, tvtest::ReadFile(DataFile(std::string(c.file) + ".written")));

        // A second load and flush of the result changes nothing.
        yuWriteAndFreeAllProfiles();
        ASSERT_EQ(WritePrivateProfileString(c.section, c.key, c.value, f.c_str()), 1);
        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
        EXPECT_EQ(tvtest::ReadFile(f), written);
        yuWriteAndFreeAllProfiles();
    }

    profiletest::ProfileDir dir;
    std::string smb = dir.file("smb.conf");
    tvtest::WriteFile(smb, tvtest::ReadFile(DataFile("smb.conf")));
    EXPECT_EQ(Get("global", "interfaces", smb), "<default>");  // ';' commented
    EXPECT_EQ(profiletest::Sections(smb),
              (std::vector<std::string>{"global", "homes", "printers", "print$"}));
    // '#' starts no comment when parsing: such lines list as keys, as any
    // bare line does; ';' lines do not.
    std::vector<std::string> keys = profiletest::Keys("printers", smb);
    ASSERT_EQ(keys.size(), 9u);
    EXPECT_EQ(keys[8], "# printer drivers");
}

}  // namespace
