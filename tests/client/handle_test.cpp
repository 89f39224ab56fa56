// Opening the connection handle, in-process: what an open that fails leaves
// behind in this process (the tool's cases see only what it prints).
#include "talvex_client.h"
#include "tool_support.h"

#include <gtest/gtest.h>

#include <cstdlib>

namespace {

using namespace talvex::test;

// A service handle stays with the process until its last count is released;
// a fresh lookup finds the count at 1 when nobody else holds it.
uint32_t coprocessor_handles() {
    io_service_t s = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
    uint32_t count = IOObjectGetUserRetainCount(s);
    IOObjectRelease(s);
    return count;
}

TEST(Open, ARefusedOpenGivesBackTheServiceAndCloseGivesBackBoth) {
    Simulator sim;
    control(sim, {"stub", "--open", "--code", "0xe00002c1", "--times", "1"});
    setenv("TALVEX_SIM_SOCKET", sim.socket().c_str(), 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(TalvexOpen(), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr(), "");
    EXPECT_EQ(coprocessor_handles(), 1u);
    TalvexHandle *talvex = TalvexOpen();
    ASSERT_NE(talvex, nullptr);
    EXPECT_EQ(coprocessor_handles(), 2u);
    TalvexClose(talvex);
    EXPECT_EQ(coprocessor_handles(), 1u);
}

}  // namespace
