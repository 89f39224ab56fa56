#include "iokit_support.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#define TALVEX_LEAK_CHECK 1
#endif

namespace talvex::test {

namespace {

using Clock = std::chrono::steady_clock;

// The child's side: run the body, report failures through the exit status.
[[noreturn]] void child_main(const std::string &socket, const std::function<void()> &body) {
    setenv("TALVEX_SIM_SOCKET", socket.c_str(), 1);
    try {
        body();
    } catch (const std::exception &e) {
        ADD_FAILURE() << "exception in child: " << e.what();
    } catch (...) {
        ADD_FAILURE() << "unknown exception in child";
    }
#ifdef TALVEX_LEAK_CHECK
    if (__lsan_do_recoverable_leak_check()) ADD_FAILURE() << "the child leaked memory (report above)";
#endif
    int status = ::testing::Test::HasFailure() ? 1 : 0;
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(status);
}

std::string describe(int st) {
    if (WIFEXITED(st)) return "exit status " + std::to_string(WEXITSTATUS(st));
    if (WIFSIGNALED(st)) return std::string("signal ") + strsignal(WTERMSIG(st));
    return "status " + std::to_string(st);
}

}  // namespace

void in_child(const std::string &socket, const std::function<void()> &body, std::chrono::milliseconds timeout) {
    std::fflush(stdout);
    std::fflush(stderr);
    pid_t pid = fork();
    ASSERT_GE(pid, 0) << std::strerror(errno);
    if (pid == 0) child_main(socket, body);
    auto deadline = Clock::now() + timeout;
    int st = 0;
    for (;;) {
        pid_t w = waitpid(pid, &st, WNOHANG);
        if (w == pid) break;
        if (Clock::now() > deadline) {
            kill(pid, SIGKILL);
            waitpid(pid, &st, 0);
            FAIL() << "the child did not finish in time";
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == 0) << "child failed: " << describe(st);
}

std::string child_output(const std::string &socket, const std::function<void()> &body, const std::string &ready_line,
                         const std::function<void()> &ready, int expect_status, std::chrono::milliseconds timeout) {
    std::fflush(stdout);
    std::fflush(stderr);
    int p[2];
    if (pipe(p) != 0) {
        ADD_FAILURE() << "pipe: " << std::strerror(errno);
        return {};
    }
    pid_t pid = fork();
    if (pid < 0) {
        ADD_FAILURE() << "fork: " << std::strerror(errno);
        return {};
    }
    if (pid == 0) {
        close(p[0]);
        dup2(p[1], 1);
        close(p[1]);
        child_main(socket, body);
    }
    close(p[1]);
    std::string out;
    bool signalled = ready_line.empty();
    auto deadline = Clock::now() + timeout;
    bool timed_out = false;
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) {
            timed_out = true;
            break;
        }
        pollfd fd{p[0], POLLIN, 0};
        if (poll(&fd, 1, static_cast<int>(std::min<long long>(left, 100))) <= 0) continue;
        char buf[4096];
        ssize_t n = read(p[0], buf, sizeof buf);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) break;
        out.append(buf, static_cast<size_t>(n));
        if (!signalled && out.find(ready_line) != std::string::npos) {
            signalled = true;
            if (ready) ready();
        }
    }
    close(p[0]);
    if (timed_out) kill(pid, SIGKILL);
    int st = 0;
    waitpid(pid, &st, 0);
    EXPECT_FALSE(timed_out) << "the child did not finish in time; it printed:\n" << out;
    EXPECT_TRUE(signalled) << "the child never printed \"" << ready_line << "\"; it printed:\n" << out;
    if (!timed_out) {
        EXPECT_TRUE(WIFEXITED(st) && WEXITSTATUS(st) == expect_status)
            << "child ended with " << describe(st) << "; it printed:\n"
            << out;
    }
    return out;
}

void say(const char *format, ...) {
    va_list ap;
    va_start(ap, format);
    std::vprintf(format, ap);
    va_end(ap);
    std::fflush(stdout);
}

io_service_t coprocessor() {
    return IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
}

io_connect_t open_client(io_service_t service) {
    io_connect_t c = 0;
    kern_return_t kr = IOServiceOpen(service, mach_task_self(), 0, &c);
    EXPECT_EQ(kr, KERN_SUCCESS);
    EXPECT_NE(c, 0u);
    return c;
}

// ---------------------------------------------------------------- FakePeer

FakePeer::FakePeer(Script script) {
    char tmpl[] = "/tmp/talvex-peer-XXXXXX";
    if (!mkdtemp(tmpl)) throw std::runtime_error("mkdtemp failed");
    dir_ = tmpl;
    socket_ = dir_ + "/peer.sock";
    listen_fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, socket_.c_str(), sizeof sa.sun_path - 1);
    if (bind(listen_fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(listen_fd_, 4) != 0)
        throw std::runtime_error("cannot listen on " + socket_);
    thread_ = std::thread([this, script = std::move(script)] {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) return;
        client_ = fd;
        script(*this);
    });
}

FakePeer::~FakePeer() {
    // Unblock a script still waiting for the client or for a request.
    shutdown(listen_fd_, SHUT_RDWR);
    if (client_ >= 0) shutdown(client_, SHUT_RDWR);
    thread_.join();
    if (client_ >= 0) close(client_);
    close(listen_fd_);
    unlink(socket_.c_str());
    rmdir(dir_.c_str());
}

void FakePeer::close_client() {
    if (client_ >= 0) shutdown(client_, SHUT_RDWR);
}

namespace {
bool read_exact(int fd, uint8_t *p, size_t n) {
    while (n) {
        ssize_t got = ::read(fd, p, n);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return false;
        p += got;
        n -= static_cast<size_t>(got);
    }
    return true;
}
}  // namespace

bool FakePeer::read(Request &req) {
    uint8_t len_bytes[4];
    if (!read_exact(client_, len_bytes, 4)) return false;
    uint32_t len = wire::load_le32(len_bytes);
    if (len < 8 || len > wire::kMaxFrame) return false;
    std::vector<uint8_t> msg(len);
    if (!read_exact(client_, msg.data(), len)) return false;
    req.op = static_cast<wire::Op>(wire::load_le16(msg.data()));
    req.seq = wire::load_le32(msg.data() + 4);
    req.body.assign(msg.begin() + 8, msg.end());
    return true;
}

void FakePeer::send(std::span<const uint8_t> bytes) {
    while (!bytes.empty()) {
        ssize_t n = ::send(client_, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return;
        bytes = bytes.subspan(static_cast<size_t>(n));
    }
}

void FakePeer::send_fd(std::span<const uint8_t> bytes, int fd) {
    iovec iov{const_cast<uint8_t *>(bytes.data()), bytes.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
    ssize_t n = sendmsg(client_, &msg, MSG_NOSIGNAL);
    if (n >= 0 && static_cast<size_t>(n) < bytes.size()) send(bytes.subspan(static_cast<size_t>(n)));
}

void FakePeer::reply(const Request &req, int32_t code, std::span<const uint8_t> body) {
    send(wire::make_reply(req.op, req.seq, code, body));
}

bool FakePeer::greet() {
    Request req;
    if (!read(req) || req.op != wire::Op::Hello) return false;
    wire::Writer w;
    w.u32(wire::kProtocolVersion);
    reply(req, 0, w.data());
    return true;
}

}  // namespace talvex::test
