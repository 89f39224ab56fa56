// start where a case file cannot say it: an image path relative to the
// directory the tool runs in, and a boot watched by monitor as it happens.
// (Flags, numbers and failures: tests/cases/start.case.)
#include "tool_support.h"

#include <gtest/gtest.h>

#include <signal.h>

#include <cstdlib>
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

TEST(Start, MonitorSeesTheBootFromStopped) {
    Simulator sim;
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    auto monitor = sim.start_tool({"monitor"});
    ASSERT_TRUE(monitor->wait_for_stdout("talvex current state: stopped (0x10000)\n")) << monitor->err();
    RunResult r = sim.tool({"start"});
    EXPECT_EQ(r.status, 0) << r.err;
    ASSERT_TRUE(monitor->wait_for_stdout("talvex new state: booted (0x10002)\n")) << monitor->out();
    ASSERT_TRUE(monitor->wait_for_stdout("timesync event:")) << monitor->out();
    monitor->signal(SIGTERM);
    RunResult m = monitor->wait();
    auto out = lines(m.out);
    ASSERT_EQ(out.size(), 4u) << m.out;
    EXPECT_NE(out[1].find("]: talvex new state: booting (0x10001)"), std::string::npos) << out[1];
    EXPECT_NE(out[2].find("]: talvex new state: booted (0x10002)"), std::string::npos) << out[2];
    // Booted follows booting after the firmware's boot time.
    double interval = std::strtod(out[2].substr(out[2].find('[') + 1).c_str(), nullptr);
    EXPECT_GE(interval, 0.25) << out[2];
    EXPECT_LT(interval, 2.0) << out[2];
    EXPECT_NE(out[3].find("]: timesync event: ap "), std::string::npos) << out[3];
    EXPECT_EQ(m.err, "");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

}  // namespace
