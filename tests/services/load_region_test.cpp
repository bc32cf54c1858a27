// The server load region within one process.
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

namespace {

// A suffix no other test uses; the backing file goes with the object.
class Suffix {
public:
    Suffix() {
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        s_ = "-tvtest-" + std::to_string(getpid()) + "-" + std::to_string(ts.tv_nsec);
    }
    ~Suffix() { unlink(("/tmp/.KWLoadValue" + s_).c_str()); }
    const char* c_str() const { return s_.c_str(); }

private:
    std::string s_;
};

TEST(LoadRegion, PublishLimitsAndReset) {
    Suffix suffix;
    HANDLE mapping = nullptr;
    KwLoadRegion* region = nullptr;
    ASSERT_EQ(1, InitLoadBalancingRegion(&mapping, &region, suffix.c_str()));
    ASSERT_NE(nullptr, mapping);
    ASSERT_NE(nullptr, region);
    EXPECT_EQ(-1, KwGetServerLoad(region));

    EXPECT_EQ(1, KwSetServerLoad(100, &region->load));
    EXPECT_EQ(100, KwGetServerLoad(region));
    EXPECT_EQ(0, KwSetServerLoad(101, &region->load));
    EXPECT_EQ(100, KwGetServerLoad(region));  // unchanged
    EXPECT_EQ(0, KwSetServerLoad(static_cast<unsigned long>(-5), &region->load));
    EXPECT_EQ(0, KwSetServerLoad(5, nullptr));
    EXPECT_EQ(1, KwSetServerLoad(0, &region->load));
    EXPECT_EQ(0, KwGetServerLoad(region));
    EXPECT_EQ(1, KwSetServerRestricted());
    EXPECT_EQ(1, KwSetServerUnrestricted());
    EXPECT_EQ(0, KwGetServerLoad(region));

    // A second publisher with the same suffix resets the region; without a
    // place for the handle it is closed and the view stays.
    KwSetServerLoad(42, &region->load);
    KwLoadRegion* second = nullptr;
    ASSERT_EQ(1, InitLoadBalancingRegion(nullptr, &second, suffix.c_str()));
    EXPECT_EQ(-1, KwGetServerLoad(region));
    KwSetServerLoad(7, &second->load);
    EXPECT_EQ(7, KwGetServerLoad(region));

    EXPECT_EQ(1, DetachLoadBalancingRegion(second));
    EXPECT_EQ(-1, KwGetServerLoad(region));
    EXPECT_EQ(1, DetachLoadBalancingRegion(region));
    EXPECT_EQ(1, DetachLoadBalancingRegion(nullptr));
    EXPECT_EQ(-1, KwGetServerLoad(nullptr));
    CloseHandle(mapping);

    // Neither out-parameter: the region is still made and initialised.
    EXPECT_EQ(1, InitLoadBalancingRegion(nullptr, nullptr, suffix.c_str()));
}

TEST(LoadRegion, UnusableBackingFileFails) {
    Suffix suffix;
    // An empty file under the name (left by something else) cannot be mapped.
    std::string path = std::string("/tmp/.KWLoadValue") + suffix.c_str();
    FILE* f = fopen(path.c_str(), "w");
    ASSERT_NE(nullptr, f);
    fclose(f);
    KwLoadRegion* region = nullptr;
    EXPECT_EQ(0, InitLoadBalancingRegion(nullptr, &region, suffix.c_str()));
    EXPECT_EQ(nullptr, region);
}

}  // namespace
