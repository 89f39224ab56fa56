// start against a private simulator: boot flags from the options, the image
// dictionary and start number, word counts on both sides of the open, the
// client operation's failures, and a boot watched by monitor.
#include "tool_support.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using namespace talvex::test;

// The request structure for an image: the serialised dictionary, NUL included.
std::string image_input(const std::string &absolute_path) {
    return Hex().text("<dict><key>firmware-image-path</key><string>" + absolute_path + "</string></dict>").u8(0);
}

// A directory with an image file in it, removed afterwards.
struct ImageDir {
    ImageDir() {
        char name[] = "/tmp/talvex-start-XXXXXX";
        dir = mkdtemp(name) ? std::filesystem::canonical(name).string() : std::string();
        std::ofstream(dir + "/fw.bin") << "firmware";
    }
    ~ImageDir() {
        std::error_code ec;
        std::filesystem::remove_all(dir, ec);
    }
    std::string image() const { return dir + "/fw.bin"; }
    std::string dir;
};

// Runs start from the stopped state and returns the one method-2 call it made.
TraceCall start_call(const Simulator &sim, Words args) {
    EXPECT_EQ(sim.tool({"stop"}).status, 0);
    args.insert(args.begin(), "start");
    TraceCall call = one_call(sim, args);
    EXPECT_EQ(call.selector, kTalvexMethodLoadFirmware);
    EXPECT_EQ(call.output_size + call.scalar_output_count, 0u);
    return call;
}

TEST(Start, OptionsSetTheBootFlags) {
    Simulator sim;
    const std::vector<std::pair<std::vector<std::string>, uint64_t>> cases = {
        {{}, 0x00},           {{"--noautobaud"}, 0x01}, {{"--nowaitforready"}, 0x02}, {{"--notimesync"}, 0x04},
        {{"--noheartbeat"}, 0x08}, {{"--noconfig"}, 0x10}, {{"--nopaniccheck"}, 0x20},
        {{"--debug"}, 0x1f},   // the five flags, never nopaniccheck
        {{"--debug", "--nopaniccheck"}, 0x3f}, {{"-awt"}, 0x07}, {{"-h", "-c"}, 0x18}, {{"-d"}, 0x1f},
        {{"-p", "-a"}, 0x21},
    };
    for (const auto &[args, flags] : cases) {
        auto call = start_call(sim, args);
        std::string what = args.empty() ? "(none)" : args[0];
        EXPECT_EQ(call.scalars, (std::vector<uint64_t>{0, flags})) << what;
        EXPECT_EQ(call.input, "") << what;   // no image: no structure at all
    }
}

TEST(Start, ImageAndNumberGoInTheRequest) {
    Simulator sim;
    ImageDir images;
    auto call = start_call(sim, {images.image()});
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{0, 0}));
    EXPECT_EQ(call.input, image_input(images.image()));

    // A number forces noautobaud; it is read with atoi.
    call = start_call(sim, {images.image(), "12"});
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{12, 0x01}));
    EXPECT_EQ(call.input, image_input(images.image()));
    call = start_call(sim, {"--notimesync", images.image(), "34abc"});
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{34, 0x05}));
    call = start_call(sim, {images.image(), "none"});
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{0, 0x01}));
    // Options may follow the words; getopt_long takes them all.
    call = start_call(sim, {images.image(), "7", "--nopaniccheck"});
    EXPECT_EQ(call.scalars, (std::vector<uint64_t>{7, 0x21}));
    EXPECT_EQ(call.input, image_input(images.image()));

    // A relative path is made absolute against the current directory.
    std::filesystem::create_directory(images.dir + "/sub");
    for (std::string relative : {"fw.bin", "./fw.bin", "sub/../fw.bin"}) {
        ASSERT_EQ(sim.tool({"stop"}).status, 0);
        sim.trace(true);
        RunResult r = talvex::test::run(
            {"/bin/sh", "-c", "cd \"$1\" && exec \"$2\" start \"$3\"", "sh", images.dir, talvexctl_path(), relative},
            sim.env());
        EXPECT_EQ(r.status, 0) << relative << ": " << r.err;
        auto calls = trace_calls(sim.trace());
        ASSERT_EQ(calls.size(), 1u) << relative;
        EXPECT_EQ(calls[0].input, image_input(images.image())) << relative;
    }

}

TEST(Start, WordCountIsJudgedAfterTheOpen) {
    Simulator sim;
    for (const Words &args : {Words{"start", "a", "b", "c"}, Words{"start", "--debug", "a", "1", "x", "y"}}) {
        Outcome o = run(sim, args);
        EXPECT_EQ(o.r.status, 1);
        EXPECT_EQ(o.r.out, "");
        EXPECT_EQ(o.err, coded(kBadArgument, "start.cpp"));   // once: no driver call to report
        EXPECT_EQ(o.opens, 1u);
        EXPECT_TRUE(o.calls.empty());
    }
}

TEST(Start, FailuresAreReportedByTheOperationAndTheCommand) {
    Simulator sim;
    auto twice = [](const std::string &text) {
        return coded(text, "client/load_firmware.cpp") + coded(text, "start.cpp");
    };
    // A missing image is sent anyway, an absolute path exactly as given; the
    // driver decides.
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    Outcome missing = run(sim, {"start", "/fw/../nonexistent//./fw.bin"});
    EXPECT_EQ(missing.r.status, 1);
    EXPECT_EQ(missing.err, twice("(iokit/common) data was not found (0xe00002f0)"));
    ASSERT_EQ(missing.calls.size(), 1u);
    EXPECT_EQ(missing.calls[0].input, image_input("/fw/../nonexistent//./fw.bin"));

    stub_code(sim, kTalvexMethodLoadFirmware, "0xe00002bc");
    EXPECT_EQ(run(sim, {"start", "-d"}).err, twice(kGeneralError));

    // A path that makes no URL: the operation's "url", then the command's report
    // of the invalid-argument code; nothing reaches the driver.
    Outcome empty = run(sim, {"start", ""});
    EXPECT_EQ(empty.r.status, 1);
    EXPECT_EQ(empty.r.out, "");
    EXPECT_EQ(empty.err, check("url", "client/load_firmware.cpp") + coded(kBadArgument, "start.cpp"));
    EXPECT_TRUE(empty.calls.empty());
}

TEST(Start, UnknownOptionsAreReportedAndSkipped) {
    Simulator sim;
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    Outcome o = run(sim, {"start", "--bogus", "-x", "-t"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out, "");
    EXPECT_EQ(o.r.err, "start: unrecognized option '--bogus'\nstart: invalid option -- 'x'\n");
    ASSERT_EQ(o.calls.size(), 1u);
    EXPECT_EQ(o.calls[0].scalars, (std::vector<uint64_t>{0, 0x04}));
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
    EXPECT_NE(out[3].find("]: timesync event: ap "), std::string::npos) << out[3];   // (its values: the model's tests)
    EXPECT_EQ(m.err, "");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

}  // namespace
