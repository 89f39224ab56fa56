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

struct Case {
    std::string what;
    Env env;
    Words args;
    std::string out, err;   // err normalised
};

Env at(const std::string &socket) { return {{"TALVEX_SIM_SOCKET", socket}}; }

// Runs every case at once; each must end within kBound, failing as expected.
void expect_all(const std::vector<Case> &cases) {
    std::vector<std::pair<Words, Env>> commands;
    for (const Case &c : cases) {
        commands.push_back({{talvexctl_path()}, c.env});
        commands.back().first.insert(commands.back().first.end(), c.args.begin(), c.args.end());
    }
    auto results = run_together(commands, kBound);
    for (size_t i = 0; i < cases.size(); ++i) {
        EXPECT_FALSE(results[i].timed_out) << cases[i].what << ": still running after 15 s";
        EXPECT_EQ(results[i].status, 1) << cases[i].what;
        EXPECT_EQ(results[i].out, cases[i].out) << cases[i].what;
        EXPECT_EQ(normalise(results[i].err), cases[i].err) << cases[i].what;
    }
}

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
    expect_all({
        {"a peer that never answers the greeting", at(silent.socket()), {"ping"}, "", none},
        {"a stopped simulator", stopped.env(), {"ping"}, "", none},
        {"a full queue of new connections", at(full.socket()), {"ping"}, "", none},
        {"a simulator with no room", at(refusing.socket()), {"ping"}, "", none},
        {"a directory open to others", at(open_dir.socket()), {"ping"}, "", none},
        {"a directory behind a symbolic link", at(link + "/peer.sock"), {"ping"}, "", none},
    });
    EXPECT_EQ(reached.load(), 0) << "connected where the directory is not private";
    kill(stopped.pid(), SIGCONT);
}

TEST(Unreachable, ARequestWhoseReplyNeverComesFailsAsTimedOut) {
    FakePeer at_call(stall_at(talvex::wire::Op::Call)), at_open(stall_at(talvex::wire::Op::Open)),
        at_match(stall_at(talvex::wire::Op::Match)), at_report(stall_at(talvex::wire::Op::Call));
    // report announces itself before its call: the line is out while the call waits.
    Process report({talvexctl_path(), "report"}, at(at_report.socket()));
    EXPECT_TRUE(report.wait_for_stdout("calling test report\n", std::chrono::seconds(5))) << report.out();
    expect_all({
        {"no reply to the call", at(at_call.socket()), {"ping"}, "ping result: " + kTimedOut + "\n",
         twice(kTimedOut, "lifecycle.cpp")},
        {"no reply to the open", at(at_open.socket()), {"ping"}, "",
         coded(kTimedOut, "client/handle.cpp") + check("talvex", "lifecycle.cpp")},
        {"no reply to the match", at(at_match.socket()), {"ping"}, "", no_driver("lifecycle.cpp")},
    });
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
    expect_all({
        {"their directory", strangers.their_default(), {"gettalvexstate"}, "", no_driver("lifecycle.cpp")},
        {"their directory", strangers.their_default(), {"writereg", "gyro", "10", "de", "ad", "be", "ef"}, "",
         no_driver("registers.cpp")},
        {"their process", at(strangers.our_socket), {"gettalvexstate"}, "", no_driver("lifecycle.cpp")},
    });
    // Nothing reached them: no connection to their directory, no byte to their process.
    EXPECT_EQ(strangers.got_in_their_dir(), "connections: 0, bytes: 0");
    EXPECT_EQ(strangers.got_in_our_dir(), "connections: 1, bytes: 0");
}

}  // namespace
