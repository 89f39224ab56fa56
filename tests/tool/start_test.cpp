// start against a private simulator: boot flags from the options, the image
// dictionary and start number, word counts on both sides of the open, the
// client operation's failures, and a boot watched by monitor.
#include "harness.h"
#include "trace_calls.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

namespace {

using talvex::test::lines;
using talvex::test::normalise;
using talvex::test::RunResult;
using talvex::test::Simulator;
using talvex::test::trace_calls;
using talvex::test::trace_opens;

void expect_control(const Simulator &sim, const std::vector<std::string> &args) {
    RunResult r = sim.control(args);
    ASSERT_EQ(r.status, 0) << r.err;
}

std::string hex_of(const std::string &bytes) {
    static const char kHex[] = "0123456789abcdef";
    std::string out;
    for (unsigned char c : bytes) {
        out += kHex[c >> 4];
        out += kHex[c & 0xf];
    }
    return out;
}

// The request structure for an image: the serialised dictionary, NUL included.
std::string image_input(const std::string &absolute_path) {
    return hex_of("<dict><key>firmware-image-path</key><string>" + absolute_path + "</string></dict>") + "00";
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
talvex::test::TraceCall start_call(const Simulator &sim, const std::vector<std::string> &args) {
    RunResult stop = sim.tool({"stop"});
    EXPECT_EQ(stop.status, 0) << stop.err;
    sim.trace(true);
    std::vector<std::string> all{"start"};
    all.insert(all.end(), args.begin(), args.end());
    RunResult r = sim.tool(all);
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "");
    auto calls = trace_calls(sim.trace());
    EXPECT_EQ(calls.size(), 1u);
    if (calls.empty()) return {};
    EXPECT_EQ(calls[0].selector, 2);
    EXPECT_EQ(calls[0].output_size, 0u);
    EXPECT_EQ(calls[0].scalar_output_count, 0u);
    return calls[0];
}

TEST(Start, OptionsSetTheBootFlags) {
    Simulator sim;
    const std::vector<std::pair<std::vector<std::string>, uint64_t>> cases = {
        {{}, 0x00},
        {{"--noautobaud"}, 0x01},
        {{"--nowaitforready"}, 0x02},
        {{"--notimesync"}, 0x04},
        {{"--noheartbeat"}, 0x08},
        {{"--noconfig"}, 0x10},
        {{"--debug"}, 0x1f},   // the five flags, never nopaniccheck
        {{"--nopaniccheck"}, 0x20},
        {{"--debug", "--nopaniccheck"}, 0x3f},
        {{"-awt"}, 0x07},
        {{"-h", "-c"}, 0x18},
        {{"-d"}, 0x1f},
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
            {"/bin/sh", "-c", "cd \"$1\" && exec \"$2\" start \"$3\"", "sh", images.dir, talvex::test::talvexctl_path(),
             relative},
            sim.env());
        EXPECT_EQ(r.status, 0) << relative << ": " << r.err;
        auto calls = trace_calls(sim.trace());
        ASSERT_EQ(calls.size(), 1u) << relative;
        EXPECT_EQ(calls[0].input, image_input(images.image())) << relative;
    }

    // The simulated driver boots with it: booting at once, booted shortly after.
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    sim.trace(true);
    ASSERT_EQ(sim.tool({"start", images.image(), "3"}).status, 0);
    EXPECT_EQ(sim.tool({"gettalvexstate"}).out, "booting (0x10001)\n");
    auto trace = sim.trace();
    ASSERT_FALSE(trace.empty());
    EXPECT_NE(std::find(trace.begin(), trace.end(),
                        R"({"service":"ZantraTalvexProcessor","event":"boot","number":3,"flags":1,"image":")" +
                            images.image() + "\"}"),
              trace.end());
    for (int i = 0; i < 100 && sim.tool({"gettalvexstate"}).out != "booted (0x10002)\n"; ++i) usleep(20'000);
    EXPECT_EQ(sim.tool({"gettalvexstate"}).out, "booted (0x10002)\n");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

TEST(Start, WordCountIsJudgedAfterTheOpen) {
    Simulator sim;
    const std::string invalid =
        "AssertMacros: result == 0 , (iokit/common) invalid argument (0xe00002c2)  file: talvexctl/start.cpp, line: N\n";
    for (auto args : std::vector<std::vector<std::string>>{{"start", "a", "b", "c"},
                                                           {"start", "--debug", "a", "1", "x", "y"}}) {
        sim.trace(true);
        RunResult r = sim.tool(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(normalise(r.err), invalid);   // once: no driver call to report
        auto trace = sim.trace();
        EXPECT_EQ(trace_opens(trace), 1u);
        EXPECT_TRUE(trace_calls(trace).empty());
    }

    // Without a driver the open fails first, whatever the count.
    expect_control(sim, {"service", "unpublish", "ZantraTalvexProcessor"});
    for (auto args : std::vector<std::vector<std::string>>{{"start"}, {"start", "a", "b", "c"}}) {
        RunResult r = sim.tool(args);
        EXPECT_EQ(r.status, 1);
        EXPECT_EQ(r.out, "");
        EXPECT_EQ(normalise(r.err),
                  "AssertMacros: service, cannot find ZantraTalvexProcessor file: client/handle.cpp, line: N\n"
                  "AssertMacros: talvex,  file: talvexctl/start.cpp, line: N\n");
    }
    expect_control(sim, {"service", "publish", "ZantraTalvexProcessor"});
    expect_control(sim, {"stub", "--open", "--code", "0xe00002e2", "--times", "1"});
    sim.trace(true);
    RunResult refused = sim.tool({"start", "a", "b", "c"});
    EXPECT_EQ(refused.status, 1);
    EXPECT_EQ(normalise(refused.err),
              "AssertMacros: result == 0 , (iokit/common) not permitted (0xe00002e2)  file: client/handle.cpp, line: N\n"
              "AssertMacros: talvex,  file: talvexctl/start.cpp, line: N\n");
    EXPECT_TRUE(trace_calls(sim.trace()).empty());
}

TEST(Start, FailuresAreReportedByTheOperationAndTheCommand) {
    Simulator sim;
    auto twice = [](const std::string &code_text) {
        return "AssertMacros: result == 0 , " + code_text + "  file: client/load_firmware.cpp, line: N\n" +
               "AssertMacros: result == 0 , " + code_text + "  file: talvexctl/start.cpp, line: N\n";
    };
    // The simulator starts booted: the driver refuses a second boot.
    RunResult busy = sim.tool({"start"});
    EXPECT_EQ(busy.status, 1);
    EXPECT_EQ(busy.out, "");
    EXPECT_EQ(normalise(busy.err), twice("(iokit/common) Device Busy (0xe00002d5)"));

    // A missing image is sent anyway; the driver decides.
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    sim.trace(true);
    RunResult missing = sim.tool({"start", "/nonexistent/fw.bin"});
    EXPECT_EQ(missing.status, 1);
    EXPECT_EQ(normalise(missing.err), twice("(iokit/common) data was not found (0xe00002f0)"));
    auto calls = trace_calls(sim.trace());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].input, image_input("/nonexistent/fw.bin"));
    EXPECT_EQ(sim.tool({"gettalvexstate"}).out, "stopped (0x10000)\n");

    expect_control(sim, {"stub", "--selector", "2", "--code", "0xe00002bc", "--times", "1"});
    RunResult stubbed = sim.tool({"start", "-d"});
    EXPECT_EQ(stubbed.status, 1);
    EXPECT_EQ(normalise(stubbed.err), twice("(iokit/common) general error (0xe00002bc)"));

    // A path that makes no URL: the operation's "url", then the command's report
    // of the invalid-argument code; nothing reaches the driver.
    sim.trace(true);
    RunResult empty = sim.tool({"start", ""});
    EXPECT_EQ(empty.status, 1);
    EXPECT_EQ(empty.out, "");
    EXPECT_EQ(normalise(empty.err),
              "AssertMacros: url,  file: client/load_firmware.cpp, line: N\n"
              "AssertMacros: result == 0 , (iokit/common) invalid argument (0xe00002c2)  file: talvexctl/start.cpp, line: N\n");
    EXPECT_TRUE(trace_calls(sim.trace()).empty());
}

TEST(Start, UnknownOptionsAreReportedAndSkipped) {
    Simulator sim;
    ASSERT_EQ(sim.tool({"stop"}).status, 0);
    sim.trace(true);
    RunResult r = sim.tool({"start", "--bogus", "-x", "-t"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    EXPECT_EQ(r.err, "start: unrecognized option '--bogus'\nstart: invalid option -- 'x'\n");
    auto calls = trace_calls(sim.trace());
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].scalars, (std::vector<uint64_t>{0, 0x04}));
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
    // The firmware synchronised time as it came up: a believable coprocessor clock,
    // a fraction of a second old, well behind the application processor's.
    unsigned long long ap = 0, talvex = 0;
    ASSERT_EQ(std::sscanf(out[3].substr(out[3].find("]: ")).c_str(), "]: timesync event: ap %llx, talvex %llx", &ap,
                          &talvex),
              2)
        << out[3];
    EXPECT_LT(talvex, 1'000'000'000ull);
    EXPECT_GT(ap, 120'000'000'000ull);
    EXPECT_EQ(m.err, "");
    EXPECT_EQ(sim.stop(), 0) << sim.log();   // a clean shutdown, no sanitizer report
}

}  // namespace
