#include <unistd.h>
// Round trips of real configuration files shipped by Debian packages (kept in
// data/): load, set one existing key, flush. The result must equal the
// original apart from that one line and the documented rewriting: every line
// trimmed of blanks, tabs, CR and LF at both ends, and one empty line closing
// every section that did not already end in one.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "profile_test_util.h"

namespace {

std::string DataFile(const char* name) {
    // __FILE__ may be relative to the build directory (ccache base_dir), one
    // level above where the tests run.
    std::string here = __FILE__;
    std::string p = here.substr(0, here.rfind('/')) + "/data/" + name;
    if (p[0] != '/' && access(p.c_str(), R_OK) != 0) p = "../" + p;
    return p;
}

std::vector<std::string> SplitLines(const std::string& text) {
    std::vector<std::string> out;
    size_t start = 0;
    for (size_t lf; (lf = text.find('\n', start)) != std::string::npos; start = lf + 1) {
        out.push_back(text.substr(start, lf - start));
    }
    return out;
}

std::string Trim(const std::string& s) {
    const char* ws = " \t\r\n";
    size_t b = s.find_first_not_of(ws);
    if (b == std::string::npos) return std::string();
    return s.substr(b, s.find_last_not_of(ws) - b + 1);
}

// What the flush must produce: the original trimmed, with changedLine
// replaced and the closing empty line of each section made explicit. Headers in
// these files are exactly the trimmed lines that begin with '['.
std::string Expected(const std::string& original, const std::string& changedFrom,
                     const std::string& changedTo) {
    std::vector<std::string> lines;
    bool inSection = false;
    int replaced = 0;
    for (const std::string& raw : SplitLines(original)) {
        std::string line = Trim(raw);
        if (raw == changedFrom) {
            line = changedTo;
            ++replaced;
        }
        bool header = !line.empty() && line[0] == '[';
        if (header && inSection && !lines.back().empty()) lines.push_back("");
        inSection = inSection || header;
        lines.push_back(line);
    }
    if (inSection && !lines.back().empty()) lines.push_back("");
    EXPECT_EQ(replaced, 1) << changedFrom;
    std::string out;
    for (const auto& l : lines) out += l + "\n";
    return out;
}

struct Case {
    const char* file;
    const char* section;
    const char* key;
    const char* value;
    const char* originalLine;
    const char* newLine;
};

TEST(ProfileRoundTrip, DebianFilesChangeOnlyInTheSetLineAndTrimming) {
    const Case cases[] = {
        // samba-common: ';' and '#' comments, indented keys with blanks in them
        {"smb.conf", "global", "workgroup", "EXAMPLE", "   workgroup = WORKGROUP",
         "workgroup=EXAMPLE"},
        // systemd: a unit file whose header comments contain ';'
        {"systemd-timesyncd.service", "Service", "restart", "on-failure", "Restart=always",
         "Restart=on-failure"},
        // e2fsprogs: tab-indented keys, nested braces as plain lines
        {"mke2fs.conf", "defaults", "blocksize", "1024", "\tblocksize = 4096", "blocksize=1024"},
        // xdg-user-dirs: a section name with a blank
        {"xdg-user-dirs.desktop", "Desktop Entry", "NoDisplay", "false", "NoDisplay=true",
         "NoDisplay=false"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.file);
        profiletest::ProfileDir dir;
        std::string original = tvtest::ReadFile(DataFile(c.file));
        ASSERT_FALSE(original.empty());
        std::string f = dir.file(c.file);
        tvtest::WriteFile(f, original);
        ASSERT_EQ(WritePrivateProfileString(c.section, c.key, c.value, f.c_str()), 1);
        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
        std::string written = tvtest::ReadFile(f);
        EXPECT_EQ(written, Expected(original, c.originalLine, c.newLine));

        // A second load and flush of the result changes nothing.
        yuWriteAndFreeAllProfiles();
        ASSERT_EQ(WritePrivateProfileString(c.section, c.key, c.value, f.c_str()), 1);
        WritePrivateProfileString(nullptr, nullptr, nullptr, f.c_str());
        EXPECT_EQ(tvtest::ReadFile(f), written);
        yuWriteAndFreeAllProfiles();
    }
}

TEST(ProfileRoundTrip, DebianFilesReadAsTheirPackagesMeanThem) {
    profiletest::ProfileDir dir;
    std::string smb = dir.file("smb.conf");
    tvtest::WriteFile(smb, tvtest::ReadFile(DataFile("smb.conf")));
    EXPECT_EQ(profiletest::Get("global", "log file", smb), "/var/log/samba/log.%m");
    EXPECT_EQ(profiletest::Get("print$", "path", smb), "/var/lib/samba/printers");
    EXPECT_EQ(profiletest::Get("global", "interfaces", smb), "<default>");  // ';' commented
    EXPECT_EQ(profiletest::Sections(smb),
              (std::vector<std::string>{"global", "homes", "printers", "print$"}));
    // '#' starts no comment when parsing: such lines list as keys, as any
    // bare line does; ';' lines do not.
    EXPECT_EQ(
        profiletest::Keys("printers", smb),
        (std::vector<std::string>{
            "comment", "browseable", "path", "printable", "guest ok", "read only", "create mask",
            "# Windows clients look for this share name as a source of downloadable",
            "# printer drivers"}));

    std::string unit = dir.file("systemd-timesyncd.service");
    tvtest::WriteFile(unit, tvtest::ReadFile(DataFile("systemd-timesyncd.service")));
    EXPECT_EQ(profiletest::Get("Unit", "Description", unit), "Network Time Synchronization");
    EXPECT_EQ(profiletest::Get("Service", "ExecStart", unit), "!!/lib/systemd/systemd-timesyncd");
    EXPECT_EQ(profiletest::Get("install", "wantedby", unit), "sysinit.target");

    std::string desktop = dir.file("xdg-user-dirs.desktop");
    tvtest::WriteFile(desktop, tvtest::ReadFile(DataFile("xdg-user-dirs.desktop")));
    EXPECT_EQ(profiletest::Get("Desktop Entry", "X-KDE-autostart-phase", desktop), "1");
}

}  // namespace
