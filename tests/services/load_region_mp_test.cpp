// The load region published by one process is read by another.
#include <fcntl.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

#include "test_support.h"
#include "tvcommonutil/files.h"
#include "tvcommonutil/services.h"

namespace {

// A reader attaches to a publisher's region by its name without
// initialising it, and exits with the load it read (255 for -1).
TV_TEST_CHILD(load_reader) {
    std::string name = "KWLoadValue" + args.at(0);
    Handle* h = CreateFileMapping(reinterpret_cast<Handle*>(0xFFFFFFFFUL), nullptr, O_RDONLY, 0,
                                  sizeof(KwLoadRegion), &name[0]);
    if (h == nullptr || errno != 17) return 200;
    auto* region = static_cast<KwLoadRegion*>(MapViewOfFile(h, PROT_READ, 0, 0, 0));
    if (region == nullptr) return 201;
    const long load = KwGetServerLoad(region);
    UnmapViewOfFile(region);
    CloseHandle(h);
    return load == -1 ? 255 : static_cast<int>(load);
}

// Publishes args[1] and, when args[2] is "detach", detaches before exiting.
TV_TEST_CHILD(load_publisher) {
    KwLoadRegion* region = nullptr;
    if (!InitLoadBalancingRegion(nullptr, &region, args.at(0).c_str())) return 200;
    if (!KwSetServerLoad(std::stoul(args.at(1)), &region->load)) return 201;
    if (args.at(2) == "detach") DetachLoadBalancingRegion(region);
    return 0;
}

TEST(LoadRegionMp, PublishedInOneProcessReadInAnother) {
    timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    const std::string suffix =
        "-tvtest-mp-" + std::to_string(getpid()) + "-" + std::to_string(ts.tv_nsec);

    HANDLE mapping = nullptr;
    KwLoadRegion* region = nullptr;
    ASSERT_EQ(1, InitLoadBalancingRegion(&mapping, &region, suffix.c_str()));
    ASSERT_EQ(1, KwSetServerLoad(42, &region->load));
    EXPECT_EQ(42, tvtest::WaitChild(tvtest::SpawnChild("load_reader", {suffix})));
    ASSERT_EQ(1, DetachLoadBalancingRegion(region));
    EXPECT_EQ(255, tvtest::WaitChild(tvtest::SpawnChild("load_reader", {suffix})));

    // The other way round: a child publishes and exits still attached, then
    // another publishes and detaches.
    EXPECT_EQ(0, tvtest::WaitChild(tvtest::SpawnChild("load_publisher", {suffix, "77", "stay"})));
    EXPECT_EQ(77, tvtest::WaitChild(tvtest::SpawnChild("load_reader", {suffix})));
    EXPECT_EQ(0, tvtest::WaitChild(tvtest::SpawnChild("load_publisher", {suffix, "12", "detach"})));
    EXPECT_EQ(255, tvtest::WaitChild(tvtest::SpawnChild("load_reader", {suffix})));

    CloseHandle(mapping);
    unlink(("/tmp/.KWLoadValue" + suffix).c_str());
}

}  // namespace
