// The talvexsim command line beyond what tests/cases/talvexsim.case runs.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <ctime>
#include <filesystem>
#include <thread>

#include "cf_ref.h"
#include "harness.h"
#include "wire_peer.h"

using namespace talvex;
using namespace talvex::test;

namespace {

bool wait_for_socket(const std::string &path) {
    for (int i = 0; i < 1000; ++i) {
        RawClient c(path);
        if (c.connected()) return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
}

}  // namespace

TEST(SimCli, ControlCommandsEditPropertiesAndPublication) {
    Simulator sim;
    RawClient c(sim.socket());
    uint64_t generation = 0;
    uint64_t cp = c.match_class("ZantraTalvexProcessor", &generation).at(0);
    uint32_t nid = c.add_interest(cp);

    // Values of the types the tool's cases do not read back (--socket may come
    // after the command); control edits are not client writes.
    EXPECT_EQ(run({talvexsim_path(), "property", "set", "--type=bool", "on", "true", "--socket", sim.socket()}).status, 0);
    EXPECT_EQ(sim.control({"property", "set", "blob", "00ff", "--type", "data"}).status, 0);
    CFRef<CFTypeRef> on(c.property(cp, "on")), blob(c.property(cp, "blob"));
    EXPECT_EQ(on.get(), static_cast<CFTypeRef>(kCFBooleanTrue));
    ASSERT_TRUE(blob && CFGetTypeID(blob.get()) == CFDataGetTypeID());
    EXPECT_EQ(CFDataGetLength(static_cast<CFDataRef>(blob.get())), 2);
    EXPECT_TRUE(sim.trace().empty());
    int32_t code = 0;

    // Unpublishing hides the service, changes the generation and tells the watcher.
    EXPECT_EQ(sim.control({"service", "unpublish", "ZantraTalvexProcessor"}).status, 0);
    uint64_t after = 0;
    EXPECT_TRUE(c.match_class("ZantraTalvexProcessor", &after).empty());
    EXPECT_NE(after, generation);
    auto e = c.next_event();
    ASSERT_TRUE(e);
    wire::Reader er(e->body);
    EXPECT_EQ(er.u32(), nid);
    EXPECT_EQ(er.u64(), cp);
    EXPECT_EQ(er.u32(), kIOMessageServiceIsTerminated);
    EXPECT_EQ(c.open(cp, 0, &code), 0u);
    EXPECT_EQ(code, static_cast<int32_t>(kIOReturnNoDevice));

    EXPECT_EQ(sim.control({"service", "publish", "ZantraTalvexProcessor"}).status, 0);
    uint64_t again = 0;
    EXPECT_EQ(c.match_class("ZantraTalvexProcessor", &again), std::vector<uint64_t>{cp});
    EXPECT_NE(again, after);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimCli, RunAndShellUseAPrivateSimulator) {
    // The command sees the socket, can steer the simulator, and its status is ours.
    auto r = run({talvexsim_path(), "run", "--", "/bin/sh", "-c",
                  "\"$0\" stub --selector 4 && \"$0\" trace && echo \"$TALVEX_SIM_SOCKET\"; exit 3", talvexsim_path()});
    EXPECT_EQ(r.status, 3) << r.err;
    ASSERT_EQ(lines(r.out).size(), 1u) << r.out;
    std::string socket = lines(r.out)[0];
    EXPECT_EQ(socket.rfind("/tmp/", 0), 0u);
    struct stat st;
    EXPECT_NE(stat(socket.substr(0, socket.rfind('/')).c_str(), &st), 0) << "private directory left behind";
    EXPECT_TRUE(r.err.empty()) << r.err;

    EXPECT_EQ(run({talvexsim_path(), "run", "--", "/no/such/program"}).status, 127);
    // run's words (the case runner cannot give run a --socket).
    for (auto &[args, err] : std::vector<std::pair<std::vector<std::string>, std::string>>{
             {{"run"}, "missing command to run"},
             {{"run", "--channels", "100001", "--", "true"}, "bad number for --channels: '100001' (0 to 100000)"}}) {
        args.insert(args.begin(), talvexsim_path());
        r = run(args);
        EXPECT_EQ(r.status, 1) << err;
        EXPECT_EQ(r.err, "talvexsim: run: " + err + "\n");
    }

    r = run({talvexsim_path(), "shell"}, {{"SHELL", "/bin/sh"}}, "echo \"sock=$TALVEX_SIM_SOCKET\"\nexit 5\n");
    EXPECT_EQ(r.status, 5);
    EXPECT_EQ(r.out.rfind("sock=/tmp/", 0), 0u) << r.out;
}

TEST(SimCli, RunPassesTerminationOnAndNeverOrphansItsSimulator) {
    auto socket_of = [](Process &p, pid_t &command) {
        EXPECT_TRUE(p.wait_for_stdout("\n"));
        auto words = lines(p.out());
        if (words.empty()) return std::string();
        auto space = words[0].find(' ');
        command = static_cast<pid_t>(std::atoi(words[0].substr(0, space).c_str()));
        return words[0].substr(space + 1);
    };
    const std::vector<std::string> argv{talvexsim_path(), "run", "--", "/bin/sh", "-c",
                                        "echo \"$$ $TALVEX_SIM_SOCKET\"; exec sleep 30"};
    struct stat st;
    {   // SIGTERM to run goes to the command; run then cleans up and exits with its status.
        Process p(argv);
        pid_t command = -1;
        std::string socket = socket_of(p, command);
        p.signal(SIGTERM);
        auto r = p.wait();
        EXPECT_EQ(r.status, 128 + SIGTERM) << r.err;
        EXPECT_NE(stat(socket.c_str(), &st), 0);
    }
    {   // run killed outright: its simulator still stops and removes its socket.
        Process p(argv);
        pid_t command = -1;
        std::string socket = socket_of(p, command);
        ASSERT_EQ(stat(socket.c_str(), &st), 0);
        p.signal(SIGKILL);
        p.wait();
        bool gone = false;
        for (int i = 0; i < 500 && !gone; ++i) {
            gone = stat(socket.c_str(), &st) != 0;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        EXPECT_TRUE(gone);
        if (command > 0) kill(command, SIGKILL);
        rmdir(socket.substr(0, socket.rfind('/')).c_str());
    }
}

TEST(SimCli, ServeGuardsItsSocket) {
    TempDir dir;

    // A directory that others can enter or write is refused, naming the ways out.
    std::string open_dir = dir.path + "/open";
    ASSERT_EQ(mkdir(open_dir.c_str(), 0700), 0);
    chmod(open_dir.c_str(), 0770);
    auto r = run({talvexsim_path(), "serve", "--socket", open_dir + "/s.sock"});
    EXPECT_EQ(r.status, 1);
    EXPECT_EQ(r.err, "talvexsim: refusing to serve at " + open_dir + "/s.sock: its directory " + open_dir +
                         " is open to other users (mode 0770; it must be 0700); choose another socket with "
                         "--socket PATH, or set XDG_RUNTIME_DIR to a private directory\n");

    // A missing directory is created 0700 and the socket is 0600.
    std::string sock = dir.path + "/made/s.sock";
    {
        Process serve({talvexsim_path(), "serve", "--socket", sock});
        ASSERT_TRUE(wait_for_socket(sock));
        struct stat st;
        ASSERT_EQ(stat((dir.path + "/made").c_str(), &st), 0);
        EXPECT_EQ(st.st_mode & 0777, 0700u);
        ASSERT_EQ(stat(sock.c_str(), &st), 0);
        EXPECT_TRUE(S_ISSOCK(st.st_mode));
        EXPECT_EQ(st.st_mode & 0777, 0600u);

        // Peers of another user are turned away (needs the privilege to become one).
        if (geteuid() == 0) {
            chmod(dir.path.c_str(), 0711);
            chmod((dir.path + "/made").c_str(), 0711);
            chmod(sock.c_str(), 0666);
            pid_t child = fork();
            if (child == 0) {
                if (setgid(65534) != 0 || setuid(65534) != 0) _exit(2);
                RawClient c(sock);
                if (!c.connected()) _exit(3);
                auto f = c.request(wire::Op::Generation, std::span<const uint8_t>());
                _exit(f ? 4 : 0);
            }
            int st2 = 0;
            waitpid(child, &st2, 0);
            EXPECT_TRUE(WIFEXITED(st2) && WEXITSTATUS(st2) == 0) << st2;
            chmod((dir.path + "/made").c_str(), 0700);
            chmod(dir.path.c_str(), 0700);
        }

        // SIGINT stops it cleanly and removes the socket.
        serve.signal(SIGINT);
        auto done = serve.wait();
        EXPECT_EQ(done.status, 0) << done.err;
        EXPECT_NE(stat(sock.c_str(), &st), 0);
    }

    // Something else at the socket's path is left alone.
    std::string file = dir.path + "/made/file";
    FILE *f = fopen(file.c_str(), "w");
    ASSERT_TRUE(f);
    fclose(f);
    r = run({talvexsim_path(), "serve", "--socket", file});
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("not a socket"), std::string::npos) << r.err;
}

TEST(SimCli, TwoServesStartedTogetherOverAStaleSocketLeaveExactlyOneServing) {
    TempDir dir;
    const std::string sock = dir.path + "/sim.sock";
    // Without the lock beside the socket, one round in 20 to 60 ended with
    // both serving, one of them unreachable.
    for (int round = 0; round < 100; ++round) {
        int stale = unix_socket(sock, true);   // listened on, then closed: its simulator died
        ASSERT_GE(stale, 0);
        close(stale);
        Process a({talvexsim_path(), "serve", "--socket", sock}), b({talvexsim_path(), "serve", "--socket", sock});
        Process *loser = nullptr;
        for (auto until = std::chrono::steady_clock::now() + std::chrono::seconds(15);
             !loser && std::chrono::steady_clock::now() < until;)
            for (Process *p : {&a, &b})
                if (!loser && p->wait_for_stderr("\n", std::chrono::milliseconds(20))) loser = p;
        ASSERT_TRUE(loser) << "round " << round << ": neither gave way";
        Process *winner = loser == &a ? &b : &a;
        RunResult lost = loser->wait();
        EXPECT_EQ(lost.status, 1) << "round " << round;
        EXPECT_EQ(lost.err, "talvexsim: already serving at " + sock + "\n") << "round " << round;
        EXPECT_EQ(run({talvexsim_path(), "--socket", sock, "status"}).status, 0) << "round " << round;
        winner->signal(SIGTERM);
        EXPECT_EQ(winner->wait().status, 0) << "round " << round;
    }
}

// A killed run's directory goes; another user's and a symbolic link of the
// same shape stay.
TEST(SimCli, RunRemovesThePrivateDirectoriesThatKilledRunsLeft) {
    struct Made {
        std::vector<std::string> paths;
        ~Made() {
            std::error_code ignored;
            for (auto &p : paths) std::filesystem::remove_all(p, ignored);
        }
        std::string dir() {
            char tmpl[] = "/tmp/talvexsim-run-XXXXXX";
            paths.push_back(mkdtemp(tmpl) ? tmpl : "");
            return paths.back();
        }
    } made;
    auto touch = [](const std::string &path) {
        FILE *f = fopen(path.c_str(), "w");
        ASSERT_TRUE(f) << path;
        fclose(f);
    };
    // A killed run's: its simulator's socket (dead) and lock file.
    const std::string stale = made.dir();
    int fd = unix_socket(stale + "/sim.sock", true);
    ASSERT_GE(fd, 0);
    close(fd);
    touch(stale + "/sim.sock.lock");
    TempDir elsewhere;
    const std::string target = elsewhere.path, link = made.dir();
    touch(target + "/sim.sock.lock");
    ASSERT_EQ(rmdir(link.c_str()), 0);
    ASSERT_EQ(symlink(target.c_str(), link.c_str()), 0);
    std::string theirs;
    if (other_user_unavailable().empty()) {
        theirs = made.dir();
        ASSERT_EQ(rmdir(theirs.c_str()), 0);
        ASSERT_EQ(run(as_other_user({"/bin/mkdir", "-m", "0700", theirs})).status, 0);
    }
    for (const std::string &p : {stale, target, link, theirs}) {   // an hour quiet
        timespec times[2] = {{0, UTIME_OMIT}, {time(nullptr) - 3600, 0}};
        if (!p.empty()) {
            ASSERT_EQ(utimensat(AT_FDCWD, p.c_str(), times, AT_SYMLINK_NOFOLLOW), 0) << p;
        }
    }

    auto r = run({talvexsim_path(), "run", "--", "/bin/true"});
    EXPECT_EQ(r.status, 0) << r.err;
    struct stat st;
    EXPECT_NE(lstat(stale.c_str(), &st), 0) << "the killed run's directory is still there";
    for (const std::string &kept : {link, target + "/sim.sock.lock", theirs}) {
        if (!kept.empty()) {
            EXPECT_EQ(lstat(kept.c_str(), &st), 0) << kept << " was removed";
        }
    }
}
