// The tool against simulators it must not trust or that stop answering:
// each looks like no driver at all, or fails the request in progress with
// the timed-out code, and every command ends within a bounded time.
#include "tool_support.h"
#include "wire_peer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <atomic>

namespace {

using namespace talvex::test;

// The tool waits 5 s for the greeting and 10 s for a reply.
constexpr auto kBound = std::chrono::seconds(15);
const std::string kTimedOut = "(ipc/rcv) timed out (0x10004003)";

Env at(const std::string &socket) { return {{"TALVEX_SIM_SOCKET", socket}}; }

std::string dir_of(const std::string &socket) { return socket.substr(0, socket.rfind('/')); }

TEST(Unreachable, SimulatorsThatCannotBeUsedLookLikeNoDriver) {
    std::atomic<int> reached{0};
    auto counted = [&](FakePeer &p) {
        ++reached;
        never_answer(p);
    };
    FakePeer silent(never_answer), refusing(refuse_as_full), open_dir(counted), linked(counted);
    FullListener full;
    Simulator stopped;
    ASSERT_EQ(kill(stopped.pid(), SIGSTOP), 0);
    ASSERT_EQ(chmod(dir_of(open_dir.socket()).c_str(), 0755), 0);
    TempDir links;
    const std::string link = links.path + "/link";
    ASSERT_EQ(symlink(dir_of(linked.socket()).c_str(), link.c_str()), 0);

    const std::string none = no_driver("lifecycle.cpp");
    const Words ping = {talvexctl_path(), "ping"};
    expect_all_fail({
        {ping, at(silent.socket()), "", none},      // never answers the greeting
        {ping, stopped.env(), "", none},
        {ping, at(full.socket()), "", none},        // a full queue of new connections
        {ping, at(refusing.socket()), "", none},    // no room
        {ping, at(open_dir.socket()), "", none},    // a directory open to others
        {ping, at(link + "/peer.sock"), "", none},  // a directory behind a symbolic link
    }, kBound);
    EXPECT_EQ(reached.load(), 0) << "connected where the directory is not private";
    kill(stopped.pid(), SIGCONT);
}

TEST(Unreachable, ARequestWhoseReplyNeverComesFailsAsTimedOut) {
    FakePeer at_call(stall_at(talvex::wire::Op::Call)), at_open(stall_at(talvex::wire::Op::Open)),
        at_match(stall_at(talvex::wire::Op::Match)), at_report(stall_at(talvex::wire::Op::Call));
    // report announces itself before its call: the line is out while the call waits.
    Process report({talvexctl_path(), "report"}, at(at_report.socket()));
    EXPECT_TRUE(report.wait_for_stdout("calling test report\n", std::chrono::seconds(5))) << report.out();
    const Words ping = {talvexctl_path(), "ping"};
    expect_all_fail({
        {ping, at(at_call.socket()), "ping result: " + kTimedOut + "\n", twice(kTimedOut, "lifecycle.cpp")},
        {ping, at(at_open.socket()), "", coded(kTimedOut, "client/handle.cpp") + check("talvex", "lifecycle.cpp")},
        {ping, at(at_match.socket()), "", no_driver("lifecycle.cpp")},
    }, kBound);
    EXPECT_EQ(report.wait(kBound).status, 1);
}

TEST(Unreachable, AStoppedSimulatorEndsTheReportCommandsButNotTheMonitor) {
    Simulator sim;
    auto monitor = sim.start_tool({"monitor"});
    auto cpuload = sim.start_tool({"cpuload"});
    ASSERT_TRUE(monitor->wait_for_stdout("talvex current state: booted (0x10002)\n")) << monitor->err();
    // Once it has sampled (its output is buffered), the simulator stops.
    auto sampled = [&] {
        for (const TraceCall &c : trace_calls(sim.trace()))
            if (c.service == "IOReportHub" && c.selector == 3) return true;
        return false;
    };
    for (auto until = std::chrono::steady_clock::now() + kBound; !sampled() && std::chrono::steady_clock::now() < until;)
        pause_ms(50);
    ASSERT_TRUE(sampled());
    ASSERT_EQ(kill(sim.pid(), SIGSTOP), 0);
    // The next sample's reply never comes: the sample fails and the loop ends.
    RunResult r = cpuload->wait(kBound);
    EXPECT_FALSE(r.timed_out);
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.err, "");
    ASSERT_EQ(kill(sim.pid(), SIGCONT), 0);
    // The monitor waited for events all along, and still hears them.
    control(sim, {"notify", "0xe0000130", "--value", "0x10004"});
    EXPECT_TRUE(monitor->wait_for_stdout("talvex new state: panic (0x10004)\n")) << monitor->out();
}

TEST(Unreachable, AnotherUsersSimulatorIsNeverTrusted) {
    if (std::string why = other_user_unavailable(); !why.empty()) GTEST_SKIP() << why;
    Strangers strangers;
    const Words state = {talvexctl_path(), "gettalvexstate"};
    expect_all_fail({
        {state, strangers.their_default(), "", no_driver("lifecycle.cpp")},
        {{talvexctl_path(), "writereg", "gyro", "10", "de", "ad", "be", "ef"}, strangers.their_default(), "",
         no_driver("registers.cpp")},
        {state, at(strangers.our_socket), "", no_driver("lifecycle.cpp")},   // their process
    }, kBound);
    // Nothing reached them: no connection to their directory, no byte to their process.
    EXPECT_EQ(strangers.got_in_their_dir(), "connections: 0, bytes: 0");
    EXPECT_EQ(strangers.got_in_our_dir(), "connections: 1, bytes: 0");
}

}  // namespace
