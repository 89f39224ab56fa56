// The assertion diagnostic, in-process: the whole path and the real line of
// the checking site, which the case files normalise away. (State names: the
// gettalvexstate and monitor tests.)
#include "talvex_client.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// The macros report the site where they are written, and the command-level
// checks say whether the command may go on; a code without a text is shown
// in hexadecimal.
TEST(AssertReport, MacrosNameTheirOwnSite) {
    testing::internal::CaptureStderr();
    EXPECT_TRUE(TALVEX_CHECK(true, "argc == 2"));
    EXPECT_TRUE(TALVEX_CALL_OK(0));
    const long first = __LINE__ + 1;
    TALVEX_ASSERT_REPORT("talvex", "", 0);
    EXPECT_FALSE(TALVEX_CHECK(false, "argc == 2"));
    EXPECT_FALSE(TALVEX_CALL_OK(static_cast<IOReturn>(0xe00002c2)));
    EXPECT_FALSE(TALVEX_CALL_OK_TEXT(static_cast<IOReturn>(0xe00002c7)));
    TalvexAssertReport("x", nullptr, "/src/talvexctl/talvexctl.cpp", 2, 0xe3ff8100);
    std::string err = testing::internal::GetCapturedStderr();
    auto at = [](long line) { return " file: " + std::string(__FILE__) + ", line: " + std::to_string(line) + "\n"; };
    EXPECT_EQ(err, "AssertMacros: talvex, " + at(first) + "AssertMacros: argc == 2, " + at(first + 1) +
                       "AssertMacros: result == 0 , (iokit/common) invalid argument (0xe00002c2) " + at(first + 2) +
                       "AssertMacros: result == 0 , (iokit/common) unsupported function (0xe00002c7) "
                       "(iokit/common) unsupported function" +
                       at(first + 3) +
                       "AssertMacros: x, unknown error code (0xe3ff8100)  file: /src/talvexctl/talvexctl.cpp, line: 2\n");
}

}  // namespace
