#include "server.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <thread>

#include "safe_connect.h"

namespace talvex::sim {

namespace {

constexpr size_t kReadChunk = 64u << 10;
constexpr size_t kReadPerTurn = 256u << 10;   // per client per loop turn, for fairness
constexpr size_t kMaxIov = 64;

int g_wake_fd = -1;   // the running server's wake pipe, for signal handlers

// A lone client is waited for in a blocking read of its socket (see
// Server::read_alone()). A signal that the loop must look at (a connection
// arriving, a stop) ends that wait, or keeps it from starting: the handler
// notes the signal and makes the socket being waited on non-blocking, so a
// read that has not begun yet returns at once as well.
std::atomic<int> g_lone_fd{-1};
std::atomic<bool> g_signalled{false};
static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void end_lone_wait() {
    g_signalled.store(true);
    int fd = g_lone_fd.load();
    if (fd < 0) return;
    int flags = fcntl(fd, F_GETFL);
    if (flags >= 0) fcntl(fd, F_SETFL, flags | O_NONBLOCK);
}

extern "C" void on_stop_signal(int) {
    int saved = errno;
    if (g_wake_fd >= 0) {
        char b = 1;
        ssize_t ignored = write(g_wake_fd, &b, 1);
        (void)ignored;
    }
    end_lone_wait();
    errno = saved;
}

extern "C" void on_connection_signal(int) {
    int saved = errno;
    end_lone_wait();
    errno = saved;
}

// Has every connection to `listener` signal SIGIO, which ends a lone
// client's wait; false when it cannot.
bool signal_connections(int listener) {
    struct sigaction sa {};
    sa.sa_handler = on_connection_signal;
    sigemptyset(&sa.sa_mask);
    sigset_t io;
    sigemptyset(&io);
    sigaddset(&io, SIGIO);
    int flags = fcntl(listener, F_GETFL);
    return sigaction(SIGIO, &sa, nullptr) == 0 && sigprocmask(SIG_UNBLOCK, &io, nullptr) == 0 && flags >= 0 &&
           fcntl(listener, F_SETOWN, getpid()) == 0 && fcntl(listener, F_SETFL, flags | O_ASYNC) == 0;
}

std::string errno_text() { return std::strerror(errno); }

// Sends all of a small frame at once or nothing that matters; never waits.
bool send_nowait(int fd, const std::vector<uint8_t> &frame) {
    return ::send(fd, frame.data(), frame.size(), MSG_DONTWAIT | MSG_NOSIGNAL) == static_cast<ssize_t>(frame.size());
}

}  // namespace

bool prepare_socket_dir(const std::string &path, std::string &error) {
    const std::string dir = wire::socket_directory(path);
    wire::DirectoryCheck check = wire::check_socket_directory(dir);
    if (check.state == wire::DirectoryCheck::Missing) {
        if (mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
            error = "talvexsim: cannot serve at " + path + ": cannot create " + dir + ": " + errno_text();
            return false;
        }
        check = wire::check_socket_directory(dir);
    }
    switch (check.state) {
    case wire::DirectoryCheck::Private: return true;
    case wire::DirectoryCheck::NotPrivate:
        error = "talvexsim: refusing to serve at " + path + ": its directory " + dir + " " + check.why +
                "; choose another socket with --socket PATH, or set XDG_RUNTIME_DIR to a private directory";
        return false;
    case wire::DirectoryCheck::Missing:
    case wire::DirectoryCheck::Unusable: break;
    }
    error = "talvexsim: cannot serve at " + path + ": cannot use " + dir + ": " + check.why;
    return false;
}

namespace {

// Takes the lock file beside the socket, waiting for it a bounded time.
// Empty on failure, with a one-line message.
wire::OwnedFd lock_beside(const std::string &path, std::string &error) {
    const std::string lock_path = path + ".lock";
    wire::OwnedFd lock(open(lock_path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!lock) {
        error = "talvexsim: cannot serve at " + path + ": cannot open " + lock_path + ": " + errno_text();
        return lock;
    }
    constexpr auto kLockWait = std::chrono::seconds(10);
    const auto deadline = std::chrono::steady_clock::now() + kLockWait;
    while (flock(lock.get(), LOCK_EX | LOCK_NB) != 0) {
        if (errno != EWOULDBLOCK && errno != EINTR) {
            error = "talvexsim: cannot serve at " + path + ": cannot lock " + lock_path + ": " + errno_text();
            return {};
        }
        if (std::chrono::steady_clock::now() >= deadline) {
            error = "talvexsim: cannot serve at " + path + ": " + lock_path + " stayed locked for 10 s";
            return {};
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return lock;
}

}  // namespace

Server::Server(std::unique_ptr<Clock> clock, const BudgetLimits &limits)
    : sim_(*this, std::move(clock), limits), scratch_(kReadChunk) {
    if (pipe2(wake_, O_CLOEXEC | O_NONBLOCK) != 0) wake_[0] = wake_[1] = -1;
    epoll_fd_ = epoll_create1(EPOLL_CLOEXEC);
    // Events carry the address of what they are about: the wake pipe's and
    // the listening socket's fields here, or a client.
    epoll_event ev{};
    ev.events = EPOLLIN;
    ev.data.ptr = &wake_;
    if (epoll_fd_ >= 0 && wake_[0] >= 0 && epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, wake_[0], &ev) != 0) {
        close(epoll_fd_);
        epoll_fd_ = -1;
    }
}

Server::~Server() {
    for (auto &[id, c] : clients_) {
        for (auto &chunk : c->out)
            if (chunk.fd >= 0) close(chunk.fd);
        close(c->fd);
        sim_.client_gone(id);
    }
    clients_.clear();
    if (listen_fd_ >= 0) {
        close(listen_fd_);
        // Remove the socket file only if it is still ours.
        struct stat st;
        if (lstat(path_.c_str(), &st) == 0 && st.st_dev == sock_dev_ && st.st_ino == sock_ino_) unlink(path_.c_str());
    }
    if (g_wake_fd == wake_[1]) g_wake_fd = -1;
    for (int fd : wake_)
        if (fd >= 0) close(fd);
    if (epoll_fd_ >= 0) close(epoll_fd_);
}

bool Server::listen(const std::string &path, std::string &error) {
    const std::optional<sockaddr_un> sa = wire::socket_address(path);
    if (!sa) {
        error = "talvexsim: socket path '" + path + "' is empty or too long";
        return false;
    }
    if (wake_[0] < 0) {
        error = "talvexsim: cannot create a pipe: " + errno_text();
        return false;
    }
    if (epoll_fd_ < 0) {
        error = "talvexsim: cannot create an epoll instance: " + errno_text();
        return false;
    }
    if (!prepare_socket_dir(path, error)) return false;

    // What is at the path is looked at, a stale socket removed and the new
    // one bound under the lock, so that two simulators started together
    // cannot remove each other's fresh socket. The lock goes with `lock`.
    wire::OwnedFd lock = lock_beside(path, error);
    if (!lock) return false;
    struct stat st;
    if (lstat(path.c_str(), &st) == 0) {
        if (!S_ISSOCK(st.st_mode)) {
            error = "talvexsim: " + path + " exists and is not a socket";
            return false;
        }
        wire::Outcome there = wire::reach_simulator(path);
        switch (there.reach) {
        case wire::Reach::NothingThere: break;
        case wire::Reach::Answered:
        case wire::Reach::RefusedOrFull: error = "talvexsim: already serving at " + path; return false;
        default: error = "talvexsim: not replacing " + path + ": " + wire::reason(there); return false;
        }
        unlink(path.c_str());   // stale: its simulator is gone
    }

    listen_fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listen_fd_ < 0) {
        error = "talvexsim: socket: " + errno_text();
        return false;
    }
    // Set up before any connection can come, so that none comes unsignalled.
    lone_waits_ = signal_connections(listen_fd_);
    mode_t old = umask(0177);   // the socket file is born 0600
    int rc = bind(listen_fd_, reinterpret_cast<const sockaddr *>(&*sa), sizeof *sa);
    umask(old);
    if (rc != 0 || chmod(path.c_str(), 0600) != 0 || ::listen(listen_fd_, 128) != 0 || lstat(path.c_str(), &st) != 0) {
        error = "talvexsim: cannot listen at " + path + ": " + errno_text();
        if (rc == 0) unlink(path.c_str());
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    epoll_event ev{};
    ev.data.ptr = &listen_fd_;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, listen_fd_, &ev) != 0) {
        error = "talvexsim: cannot wait for connections at " + path + ": " + errno_text();
        unlink(path.c_str());
        close(listen_fd_);
        listen_fd_ = -1;
        return false;
    }
    path_ = path;
    sock_dev_ = st.st_dev;
    sock_ino_ = st.st_ino;
    return true;
}

void Server::stop_on_signals() {
    g_wake_fd = wake_[1];
    struct sigaction sa {};
    sa.sa_handler = on_stop_signal;
    sigemptyset(&sa.sa_mask);
    sigaction(SIGINT, &sa, nullptr);
    sigaction(SIGTERM, &sa, nullptr);
    signal(SIGPIPE, SIG_IGN);
}

void Server::request_stop() { stop_ = true; }

int Server::wait_timeout_ms() const {
    int64_t timeout = -1;
    if (auto due = sim_.timers().next_due()) {
        if (auto wait = sim_.clock().real_wait_until(*due)) timeout = wait->count();
    }
    if (accepting_paused()) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(accept_paused_until_ -
                                                                          std::chrono::steady_clock::now())
                        .count() +
                    1;
        timeout = timeout < 0 ? left : std::min<int64_t>(timeout, left);
    }
    return static_cast<int>(std::min<int64_t>(timeout, 60'000));
}

bool Server::watch(Client &c, uint32_t events) {
    if (events == c.watched) return true;
    epoll_event ev{};
    ev.events = events;
    ev.data.ptr = &c;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, c.fd, &ev) != 0) return false;
    c.watched = events;
    return true;
}

bool Server::accepting_paused() const {
    // The clock is read only while a pause lasts: most turns have none.
    return accept_paused_until_ != std::chrono::steady_clock::time_point{} &&
           std::chrono::steady_clock::now() < accept_paused_until_;
}

void Server::watch_listener(bool accepting) {
    if (listen_fd_ < 0 || accepting == listener_watched_) return;
    epoll_event ev{};
    ev.events = accepting ? static_cast<uint32_t>(EPOLLIN) : 0u;
    ev.data.ptr = &listen_fd_;
    if (epoll_ctl(epoll_fd_, EPOLL_CTL_MOD, listen_fd_, &ev) == 0) listener_watched_ = accepting;
}

void Server::run() {
    std::vector<epoll_event> ready(64);
    std::vector<Client *> turn;
    while (!stop_) {
        const bool accepting = !accepting_paused();
        if (accepting) accept_paused_until_ = {};   // a pause that has ended is forgotten
        watch_listener(accepting);
        for (auto &[id, c] : clients_) {
            uint32_t events = 0;
            if (!c->eof && !paused(*c)) events |= EPOLLIN;
            if (!c->out.empty()) events |= EPOLLOUT;
            if (!c->dead && !watch(*c, events)) disconnect(*c, "cannot wait for its socket: " + errno_text());
        }
        reap();
        Client *alone = lone_reader();
        if (!(alone && read_alone(*alone)) && !serve_ready(ready, turn)) break;
        sim_.run_timers();
        for (auto &[id, c] : clients_) {
            // Frames left from a turn in which the client was paused: handle
            // them while its replies drain, so none waits for input that may
            // never come.
            while (!c->dead && !(c->in.empty() && c->out.empty())) {
                size_t buffered = c->in.size();
                process_input(*c);
                if (!c->out.empty()) flush(*c);
                if (c->in.size() == buffered || !c->out.empty()) break;
            }
            if (c->eof && c->out.empty() && c->in.empty()) mark_dead(*c);
        }
        reap();
    }
}

bool Server::serve_ready(std::vector<epoll_event> &ready, std::vector<Client *> &turn) {
    // Whatever a signal was about, this wait sees it.
    g_signalled.store(false);
    int n = epoll_wait(epoll_fd_, ready.data(), static_cast<int>(ready.size()), wait_timeout_ms());
    if (n < 0 && errno != EINTR) {
        std::fprintf(stderr, "talvexsim: epoll_wait: %s\n", std::strerror(errno));
        return false;
    }
    bool woken = false, connecting = false;
    turn.clear();
    for (int i = 0; i < n; ++i) {
        void *about = ready[static_cast<size_t>(i)].data.ptr;
        if (about == &wake_) {
            woken = true;
        } else if (about == &listen_fd_) {
            connecting = true;
        } else {
            auto *c = static_cast<Client *>(about);
            c->revents = ready[static_cast<size_t>(i)].events;
            turn.push_back(c);
        }
    }
    if (woken) {
        char buf[64];
        while (read(wake_[0], buf, sizeof buf) > 0) {
        }
        stop_ = true;
        return false;
    }
    if (connecting) accept_clients();
    // Clients are served in the order they connected, whatever order
    // the kernel reported them in.
    std::sort(turn.begin(), turn.end(), [](const Client *a, const Client *b) { return a->id < b->id; });
    for (Client *c : turn) {
        if (c->revents & (EPOLLIN | EPOLLHUP | EPOLLERR)) read_client(*c);
        if ((c->revents & EPOLLOUT) && !c->dead) flush(*c);
    }
    if (static_cast<size_t>(n) == ready.size()) ready.resize(ready.size() * 2);
    return true;
}

Server::Client *Server::lone_reader() {
    if (!lone_waits_ || clients_.size() != 1 || connections_left_) return nullptr;
    Client &c = *clients_.begin()->second;
    // Nothing else may need the loop while it waits: no output to drain, no
    // timer or accept pause to end the wait.
    if (c.dead || c.eof || !c.out.empty() || paused(c) || wait_timeout_ms() >= 0) return nullptr;
    return &c;
}

bool Server::read_alone(Client &c) {
    g_lone_fd.store(c.fd);
    ssize_t n = -1;
    int error = EINTR;
    if (!g_signalled.load()) {
        n = recv(c.fd, scratch_.data(), scratch_.size(), 0);
        error = errno;
    }
    g_lone_fd.store(-1);
    if (g_signalled.load()) {
        // The handler may have made the socket non-blocking; no handler
        // touches it any more.
        int flags = fcntl(c.fd, F_GETFL);
        if (flags >= 0 && (flags & O_NONBLOCK)) fcntl(c.fd, F_SETFL, flags & ~O_NONBLOCK);
    }
    if (n > 0) {
        take_input(c, static_cast<size_t>(n));
        if (static_cast<size_t>(n) == scratch_.size()) read_client(c);
    } else if (n == 0) {
        c.eof = true;
    } else if (error == EINTR || error == EAGAIN || error == EWOULDBLOCK) {
        return false;   // a signal ended the wait: the loop looks at what it was about
    } else {
        mark_dead(c);
    }
    return true;
}

void Server::accept_clients() {
    // Connections left queued after a turn's share are taken at the next
    // turn, which must then wait in epoll_wait: their signals have been seen.
    connections_left_ = true;
    for (int i = 0; i < 64; ++i) {
        int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EAGAIN || errno == EWOULDBLOCK) connections_left_ = false;
            if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
                // Out of descriptors: leave pending connections queued for a moment.
                accept_paused_until_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(100);
            }
            return;
        }
        ucred cred{};
        socklen_t len = sizeof cred;
        if (getsockopt(fd, SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0 || cred.uid != geteuid()) {
            std::fprintf(stderr, "talvexsim: refused a connection from user %u\n", static_cast<unsigned>(cred.uid));
            close(fd);
            continue;
        }
        size_t most = sim_.budget().limits().max_clients;
        if (clients_.size() >= most) {
            if (!refusing_)
                std::fprintf(stderr, "talvexsim: refusing connections: %zu clients already (at most %zu)\n",
                             clients_.size(), most);
            refusing_ = true;
            refuse(fd);
            continue;
        }
        refusing_ = false;
        auto c = std::make_unique<Client>();
        epoll_event ev{};
        ev.events = EPOLLIN;
        ev.data.ptr = c.get();
        if (epoll_ctl(epoll_fd_, EPOLL_CTL_ADD, fd, &ev) != 0) {
            std::fprintf(stderr, "talvexsim: refused a connection: cannot wait for its socket: %s\n",
                         std::strerror(errno));
            close(fd);
            continue;
        }
        c->watched = EPOLLIN;
        c->id = next_client_++;
        c->fd = fd;
        c->descriptors = sim_.budget().open(c->id, Resource::Descriptors);
        c->descriptors.force(1);
        c->buffers = sim_.budget().open(c->id, Resource::Buffers);
        clients_.emplace(c->id, std::move(c));
    }
}

void Server::refuse(int fd) {
    // One greeting reply that says no; never wait for the client to take it.
    static const std::vector<uint8_t> no = wire::make_reply(wire::Op::Hello, 0, kIOReturnNoResources, {});
    if (send_nowait(fd, no)) {
        // Take what the client already sent (its greeting), so that closing
        // does not reset the connection before it reads the reply.
        char buf[512];
        for (int i = 0; i < 8 && recv(fd, buf, sizeof buf, MSG_DONTWAIT) > 0; ++i) {
        }
    }
    close(fd);
}

bool Server::paused(const Client &c) const {
    if (c.out_bytes == 0) return false;
    if (c.out_bytes >= kPauseOutput) return true;
    // While the pool runs low, a client beyond its floor with output unread
    // waits for it to drain.
    const Budget &b = sim_.budget();
    return c.buffers.amount() > b.limits()[Resource::Buffers].floor && b.pool_left(Resource::Buffers) < kReadChunk;
}

void Server::read_client(Client &c) {
    size_t got_this_turn = 0;
    while (!c.dead && !c.eof && !paused(c) && got_this_turn < kReadPerTurn) {
        ssize_t n = recv(c.fd, scratch_.data(), scratch_.size(), MSG_DONTWAIT);
        if (n > 0) {
            got_this_turn += static_cast<size_t>(n);
            take_input(c, static_cast<size_t>(n));
            // A short read drained the socket for now; epoll reports anything
            // that arrives later, so another read would only meet EAGAIN.
            if (static_cast<size_t>(n) < scratch_.size()) break;
            continue;
        }
        if (n == 0) {
            c.eof = true;
        } else if (errno == EINTR) {
            continue;
        } else if (errno != EAGAIN && errno != EWOULDBLOCK) {
            mark_dead(c);
        }
        break;
    }
}

void Server::take_input(Client &c, size_t n) {
    c.in.insert(c.in.end(), scratch_.begin(), scratch_.begin() + static_cast<std::ptrdiff_t>(n));
    process_input(c);
}

void Server::process_input(Client &c) {
    size_t off = 0;
    while (!c.dead && !paused(c) && c.in.size() - off >= 4) {
        uint32_t len = wire::load_le32(c.in.data() + off);
        if (len < 8 || len > wire::kMaxFrame) {
            disconnect(c, "a frame of " + std::to_string(len) + " bytes cannot be one");
            break;
        }
        if (c.in.size() - off - 4 < len) break;
        sim_.handle(c.id, std::span<const uint8_t>(c.in.data() + off + 4, len));
        off += 4 + static_cast<size_t>(len);
    }
    if (off) c.in.erase(c.in.begin(), c.in.begin() + static_cast<std::ptrdiff_t>(off));
    // A client that stopped sending mid-frame will never complete it.
    if (c.eof && !c.in.empty() && !paused(c) && !c.dead) {
        c.in.clear();
    }
    // Give back the memory of a large frame once it is handled.
    if (c.in.empty() && c.in.capacity() > kReadChunk) c.in.shrink_to_fit();
    if (!c.dead) charge_input(c);
}

void Server::charge_input(Client &c) {
    // The frame under way is paid for in full when its length arrives (and
    // its room taken at once), so a client cannot creep up on the budget.
    size_t need = c.in.size();
    if (need >= 4) need = std::max(need, 4 + static_cast<size_t>(wire::load_le32(c.in.data())));
    size_t want = need + c.out_bytes;
    if (need == c.in_need && want == c.buffers.amount()) return;
    Verdict v = c.buffers.resize(want);
    if (!v && need > kReadChunk) {
        disconnect(c, "a frame of " + std::to_string(need - 4) + " bytes would exceed the " +
                          (v.per_client ? "client's" : "simulator's") + " buffer budget (" + std::to_string(v.limit) +
                          " bytes)");
        return;
    }
    if (!v) c.buffers.force(want);   // what one read brings in always fits
    c.in_need = need;
    if (need > c.in.capacity()) c.in.reserve(need);
}

Shortfall Server::reply_room(ClientId client, size_t bytes, bool descriptor) {
    auto it = clients_.find(client);
    if (it == clients_.end()) return {};
    Client &c = *it->second;
    if (descriptor) {
        Verdict v = c.descriptors.check(c.descriptors.amount() + 1);
        if (!v) return {Resource::Descriptors, v};
    }
    return {Resource::Buffers, c.buffers.check(c.in_need + c.out_bytes + bytes)};
}

void Server::send(ClientId client, std::vector<uint8_t> frame, int fd) {
    auto it = clients_.find(client);
    if (it == clients_.end() || it->second->dead) return;
    Client &c = *it->second;
    size_t want = c.in_need + c.out_bytes + frame.size();
    if (!c.buffers.resize(want)) {
        // Replies were measured by reply_room(); an event that does not fit
        // goes only to a client that keeps up.
        bool event = wire::load_le16(frame.data() + 4) == static_cast<uint16_t>(wire::Op::Event);
        if (event && c.out_bytes + frame.size() > sim_.budget().limits()[Resource::Buffers].floor) {
            disconnect(c, "its unread events would exceed the simulator's buffer budget");
            return;
        }
        c.buffers.force(want);
    }
    Chunk chunk;
    chunk.bytes = std::move(frame);
    if (fd >= 0) {
        chunk.fd = fcntl(fd, F_DUPFD_CLOEXEC, 0);
        if (chunk.fd < 0) {
            disconnect(c, "cannot pass a descriptor: " + errno_text());
            return;
        }
        c.descriptors.force(c.descriptors.amount() + 1);
    }
    c.out_bytes += chunk.bytes.size();
    c.out.push_back(std::move(chunk));
    if (c.out_bytes > kMaxPendingOutput) disconnect(c, "it does not read what it is sent");
}

void Server::flush(Client &c) {
    while (!c.out.empty() && !c.dead) {
        msghdr msg{};
        iovec iov[kMaxIov];
        size_t count = 0;
        wire::DescriptorControl control;
        Chunk &first = c.out.front();
        if (first.fd >= 0) {
            // The descriptor goes with its own frame's first byte, alone.
            iov[count++] = {first.bytes.data() + first.sent, first.bytes.size() - first.sent};
            wire::attach_descriptor(msg, control, first.fd);
        } else {
            for (auto &ch : c.out) {
                if (count == kMaxIov || (count > 0 && ch.fd >= 0)) break;
                iov[count++] = {ch.bytes.data() + ch.sent, ch.bytes.size() - ch.sent};
            }
        }
        msg.msg_iov = iov;
        msg.msg_iovlen = count;
        // One frame and no descriptor, as most replies are, goes by send():
        // the kernel then has no message header or vector to copy in.
        ssize_t n = count == 1 && first.fd < 0
                        ? ::send(c.fd, iov[0].iov_base, iov[0].iov_len, MSG_NOSIGNAL | MSG_DONTWAIT)
                        : sendmsg(c.fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n < 0) {
            if (errno == EINTR) continue;
            if (errno != EAGAIN && errno != EWOULDBLOCK) mark_dead(c);
            return;
        }
        if (first.fd >= 0) {
            close(first.fd);
            first.fd = -1;
            c.descriptors.force(c.descriptors.amount() - 1);
        }
        auto left = static_cast<size_t>(n);
        c.out_bytes -= left;
        c.buffers.force(c.in_need + c.out_bytes);
        while (left > 0) {
            Chunk &ch = c.out.front();
            size_t take = std::min(left, ch.bytes.size() - ch.sent);
            ch.sent += take;
            left -= take;
            if (ch.sent == ch.bytes.size()) c.out.pop_front();
        }
    }
}

void Server::disconnect(Client &c, const std::string &why) {
    if (c.dead) return;
    std::fprintf(stderr, "talvexsim: disconnecting client %llu: %s\n", static_cast<unsigned long long>(c.id), why.c_str());
    mark_dead(c);
}

void Server::reap() {
    if (!any_dead_) return;
    any_dead_ = false;
    for (auto it = clients_.begin(); it != clients_.end();) {
        Client &c = *it->second;
        if (!c.dead) {
            ++it;
            continue;
        }
        for (auto &chunk : c.out)
            if (chunk.fd >= 0) close(chunk.fd);
        // Removed by hand: closing leaves the registration in place while
        // any other descriptor of the socket lives, and its events would
        // then name a client that is gone.
        epoll_ctl(epoll_fd_, EPOLL_CTL_DEL, c.fd, nullptr);
        close(c.fd);
        sim_.client_gone(c.id);
        it = clients_.erase(it);
    }
}

}  // namespace talvex::sim
