// start where a case file cannot say it: an image path relative to the
// directory the tool runs in (the rest of start: tests/cases/start.case).
#include "tool_support.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>

namespace {

using namespace talvex::test;

TEST(Start, ARelativeImagePathIsMadeAbsoluteAgainstTheCurrentDirectory) {
    Simulator sim;
    TempDir images;
    const std::string dir = std::filesystem::canonical(images.path).string();
    std::ofstream(dir + "/fw.bin") << "firmware";
    std::filesystem::create_directory(dir + "/sub");
    // The request: the serialised dictionary naming the absolute path, NUL included.
    std::string want;
    for (unsigned char c : "<dict><key>firmware-image-path</key><string>" + dir + "/fw.bin</string></dict>") {
        static const char digits[] = "0123456789abcdef";
        want += {digits[c >> 4], digits[c & 15]};
    }
    want += "00";
    for (std::string relative : {"fw.bin", "./fw.bin", "sub/../fw.bin"}) {
        ASSERT_EQ(sim.tool({"stop"}).status, 0);
        sim.trace(true);
        RunResult r = talvex::test::run(
            {"/bin/sh", "-c", "cd \"$1\" && exec \"$2\" start \"$3\"", "sh", dir, talvexctl_path(), relative}, sim.env());
        EXPECT_EQ(r.status, 0) << relative << ": " << r.err;
        auto calls = trace_calls(sim.trace());
        ASSERT_EQ(calls.size(), 1u) << relative;
        EXPECT_EQ(calls[0].input, want) << relative;
    }
}

}  // namespace
