// A mapping written by one process is read by another.
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "files_test_util.h"

namespace {

Handle* const kNoFile = filestest::NoFile();

// Opens the existing mapping (errno must say so), checks the parent's text
// and answers in the second half.
TV_TEST_CHILD(mapping_reader) {
    std::string name = args.at(0);
    Handle* h = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 4096, &name[0]);
    if (h == nullptr) return 10;
    if (errno != 17) return 11;
    char* view = static_cast<char*>(MapViewOfFile(h, PROT_READ | PROT_WRITE, 0, 0, 0));
    if (view == nullptr) return 12;
    if (strcmp(view, "from parent") != 0) return 13;
    strcpy(view + 2048, "from child");
    if (UnmapViewOfFile(view) != 1) return 14;
    CloseHandle(h);
    return 0;
}

TEST(FileMappingMp, WrittenByOneProcessReadByAnother) {
    filestest::MappingName m;
    Handle* h = CreateFileMapping(kNoFile, nullptr, O_RDWR, 0, 4096, m.name());
    ASSERT_NE(nullptr, h);
    ASSERT_EQ(0, errno);
    char* view = static_cast<char*>(MapViewOfFile(h, PROT_WRITE, 0, 0, 4096));
    ASSERT_NE(nullptr, view);
    strcpy(view, "from parent");

    EXPECT_EQ(0, tvtest::WaitChild(tvtest::SpawnChild("mapping_reader", {m.name()})));
    EXPECT_STREQ("from child", view + 2048);
    // The file keeps what both wrote after every view is gone.
    EXPECT_EQ(1, UnmapViewOfFile(view));
    CloseHandle(h);
    std::string contents = tvtest::ReadFile(m.path());
    ASSERT_EQ(4104u, contents.size());
    EXPECT_EQ(0, memcmp(contents.data() + 8, "from parent", 11));
    EXPECT_EQ(0, memcmp(contents.data() + 8 + 2048, "from child", 10));
}

}  // namespace
