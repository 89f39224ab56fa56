// `talvexsim status` and the control commands against sockets they must not
// trust or that do not answer: one line why, exit 1, within a bounded time.
#include <gtest/gtest.h>
#include <pwd.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include "harness.h"
#include "wire_peer.h"

using namespace talvex;
using namespace talvex::test;

namespace {

// The greeting is given 5 s and a reply 10 s.
constexpr auto kBound = std::chrono::seconds(15);

// `talvexsim --socket SOCKET COMMAND`
std::vector<std::string> at(const std::string &socket, const char *command) {
    return {talvexsim_path(), "--socket", socket, command};
}

// The line for a socket where no simulator can be used.
std::string none_at(const std::string &socket, const std::string &why) {
    return "talvexsim: no simulator at " + socket + ": " + why + "\n";
}

TEST(Reach, StatusAndControlCommandsSayWhyNoSimulatorAnswers) {
    Simulator live, stopped;
    ASSERT_EQ(kill(stopped.pid(), SIGSTOP), 0);
    FakePeer silent(never_answer), refusing(refuse_as_full), stalls(stall_at(wire::Op::Control)), other_protocol([](FakePeer &p) {
            Request req;
            if (p.read(req)) p.reply(req, kIOReturnUnsupported, {});
            never_answer(p);
        });
    FullListener full;
    TempDir ours, open;
    ASSERT_EQ(chmod(open.path.c_str(), 0755), 0);
    const std::string link = ours.path + "/link", file = ours.path + "/file";
    ASSERT_EQ(symlink(ours.path.c_str(), link.c_str()), 0);
    FILE *f = fopen(file.c_str(), "w");
    ASSERT_TRUE(f);
    fclose(f);
    const std::string stale = ours.path + "/stale.sock";
    {
        int fd = unix_socket(stale, true);   // bound and listening, then closed: a simulator that died
        ASSERT_GE(fd, 0);
        close(fd);
    }
    const std::string nowhere = ours.path + "/none", too_long = "/tmp/" + std::string(120, 'x') + "/sim.sock";
    const std::string timed_out = "timed out: no answer to the greeting within 5 s";
    const std::string full_queue = "refused or full: its queue of new connections stayed full for 5 s";
    const std::string no_room = "refused or full: the simulator has no room for another client";

    auto r = run({talvexsim_path(), "--socket", live.socket(), "status"});
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "a simulator answers at " + live.socket() + "\n");
    EXPECT_EQ(r.err, "");

    expect_all_fail({
        {at(nowhere + "/sim.sock", "status"), {}, "",
         none_at(nowhere + "/sim.sock", "nothing there (no directory " + nowhere + ")")},
        {at(ours.path + "/sim.sock", "status"), {}, "", none_at(ours.path + "/sim.sock", "nothing there (no socket file)")},
        {at(stale, "status"), {}, "", none_at(stale, "nothing there (nobody listens on the socket)")},
        {at(open.path + "/sim.sock", "status"), {}, "",
         none_at(open.path + "/sim.sock",
                 "not yours: its directory " + open.path + " is open to other users (mode 0755; it must be 0700)")},
        {at(link + "/sim.sock", "status"), {}, "",
         none_at(link + "/sim.sock", "not yours: its directory " + link + " is a symbolic link")},
        {at(file + "/sim.sock", "status"), {}, "",
         none_at(file + "/sim.sock", "not yours: its directory " + file + " is not a directory")},
        {at(too_long, "status"), {}, "",
         none_at(too_long, "path too long (" + std::to_string(too_long.size()) +
                               " bytes; a socket path must be shorter than 108)")},
        {at(other_protocol.socket(), "status"), {}, "",
         none_at(other_protocol.socket(), "not a simulator: it refused the greeting with code 0xe00002c7")},
        {at(silent.socket(), "status"), {}, "", none_at(silent.socket(), timed_out)},
        {at(refusing.socket(), "status"), {}, "", none_at(refusing.socket(), no_room)},
        // A control command checks as status does.
        {{talvexsim_path(), "trace"}, stopped.env(), "", none_at(stopped.socket(), timed_out)},
        {at(full.socket(), "status"), {}, "", none_at(full.socket(), full_queue)},
        {at(stalls.socket(), "trace"), {}, "",
         "talvexsim: no answer from the simulator at " + stalls.socket() + ": timed out after 10 s\n"},
    }, kBound);
    kill(stopped.pid(), SIGCONT);
}

TEST(Reach, AnotherUsersSimulatorIsNeverTrusted) {
    if (std::string why = other_user_unavailable(); !why.empty()) GTEST_SKIP() << why;
    Strangers strangers;
    // The user's name, from the password file, follows the number.
    const passwd *nobody = getpwuid(65534);
    const std::string user = "user 65534" + (nobody ? " (" + std::string(nobody->pw_name) + ")" : std::string());
    const std::string their_dir =
        none_at(strangers.their_socket, "not yours: its directory " + strangers.their_dir + " belongs to " + user);
    const std::string their_process =
        none_at(strangers.our_socket, "not yours: the process listening there runs as " + user);
    expect_all_fail({
        {{talvexsim_path(), "status"}, strangers.their_default(), "", their_dir},
        {at(strangers.our_socket, "status"), {}, "", their_process},
    }, kBound);
    // Nothing reached them: no connection to their directory, no byte to their process.
    EXPECT_EQ(strangers.got_in_their_dir(), "connections: 0, bytes: 0");
    EXPECT_EQ(strangers.got_in_our_dir(), "connections: 1, bytes: 0");
}

}  // namespace
