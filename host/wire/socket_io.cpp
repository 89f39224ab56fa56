#include "socket_io.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "little_endian.h"
#include "wire.h"

namespace talvex::wire {

namespace {

using Clock = std::chrono::steady_clock;

// Rounded up: a wait of whole milliseconds never ends short of the deadline
// (one that did would be taken for a peer that closed, not one that stalled).
int ms_left(Clock::time_point deadline) {
    auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

// Reads exactly `n` bytes before the deadline. With `waiting`, it waits
// before the first read (nothing is there yet); without, it reads first and
// waits only when nothing was there.
FrameRead read_exact(int fd, uint8_t *out, size_t n, Clock::time_point deadline, OwnedFd *descriptor, bool waiting) {
    for (size_t done = 0; done < n;) {
        if (waiting) {
            pollfd p{fd, POLLIN, 0};
            int r = poll(&p, 1, ms_left(deadline));
            if (r < 0 && errno == EINTR) continue;
            if (r < 0) return FrameRead::Closed;
            if (r == 0) return FrameRead::TimedOut;
        }
        waiting = true;
        std::vector<int> came;
        ssize_t got = receive_some(fd, std::span(out + done, n - done), descriptor ? &came : nullptr);
        for (int d : came) descriptor->reset(d);   // the last one is kept
        if (got < 0 && (errno == EINTR || errno == EAGAIN || errno == EWOULDBLOCK)) continue;
        if (got <= 0) return FrameRead::Closed;
        done += static_cast<size_t>(got);
    }
    return FrameRead::Ok;
}

// A socket of `flags`' kind at `path`, set up by `attach` (bind and listen, or connect).
template <class Attach>
OwnedFd socket_at(std::string_view path, int flags, Attach attach) {
    auto sa = socket_address(path);
    if (!sa) {
        errno = ENAMETOOLONG;
        return {};
    }
    OwnedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | flags, 0));
    if (fd && !attach(fd.get(), reinterpret_cast<const sockaddr *>(&*sa), socklen_t{sizeof *sa})) {
        const int err = errno;
        fd.reset();
        errno = err;
    }
    return fd;
}

}  // namespace

std::optional<sockaddr_un> socket_address(std::string_view path) {
    if (path.empty() || path.size() > kMaxSocketPath) return std::nullopt;
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::memcpy(sa.sun_path, path.data(), path.size());
    return sa;
}

OwnedFd listen_at(std::string_view path, int backlog, int flags) {
    return socket_at(path, flags, [backlog](int fd, const sockaddr *sa, socklen_t len) {
        return bind(fd, sa, len) == 0 && listen(fd, backlog) == 0;
    });
}

OwnedFd connect_to(std::string_view path, int flags) {
    return socket_at(path, flags, [](int fd, const sockaddr *sa, socklen_t len) {
        int r;
        do r = connect(fd, sa, len);
        while (r != 0 && errno == EINTR);
        return r == 0;
    });
}

ssize_t receive_some(int fd, std::span<uint8_t> into, std::vector<int> *descriptors, bool wait) {
    const int flags = wait ? 0 : MSG_DONTWAIT;
    if (!descriptors) return recv(fd, into.data(), into.size(), flags);
    constexpr size_t kMaxDescriptors = 8;
    iovec iov{into.data(), into.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * kMaxDescriptors)];
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    msg.msg_control = control;
    msg.msg_controllen = sizeof control;
    ssize_t got = recvmsg(fd, &msg, flags | MSG_CMSG_CLOEXEC);
    if (got < 0) return got;
    for (cmsghdr *c = CMSG_FIRSTHDR(&msg); c; c = CMSG_NXTHDR(&msg, c)) {
        if (c->cmsg_level != SOL_SOCKET || c->cmsg_type != SCM_RIGHTS) continue;
        size_t count = (c->cmsg_len - CMSG_LEN(0)) / sizeof(int);
        for (size_t i = 0; i < count; ++i) {
            int d;
            std::memcpy(&d, CMSG_DATA(c) + i * sizeof(int), sizeof d);
            descriptors->push_back(d);
        }
    }
    return got;
}

bool send_before(int fd, std::span<const uint8_t> bytes, Clock::time_point deadline) {
    while (!bytes.empty()) {
        ssize_t n = send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) {
            bytes = bytes.subspan(static_cast<size_t>(n));
            continue;
        }
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd, POLLOUT, 0};
            int r = poll(&p, 1, ms_left(deadline));
            if (r == 0) return false;
            if (r < 0 && errno != EINTR) return false;
            continue;
        }
        return false;
    }
    return true;
}

bool send_with_descriptor_before(int fd, std::span<const uint8_t> bytes, int descriptor, Clock::time_point deadline) {
    if (descriptor < 0 || bytes.empty()) return send_before(fd, bytes, deadline);
    iovec iov{const_cast<uint8_t *>(bytes.data()), bytes.size()};
    DescriptorControl control;
    msghdr msg{};
    msg.msg_iov = &iov;
    msg.msg_iovlen = 1;
    attach_descriptor(msg, control, descriptor);
    for (;;) {
        ssize_t n = sendmsg(fd, &msg, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n > 0) return send_before(fd, bytes.subspan(static_cast<size_t>(n)), deadline);
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            pollfd p{fd, POLLOUT, 0};
            int r = poll(&p, 1, ms_left(deadline));
            if (r == 0 || (r < 0 && errno != EINTR)) return false;
            continue;
        }
        return false;
    }
}

FrameRead read_frame_before(int fd, Clock::time_point deadline, uint32_t max_length, std::vector<uint8_t> &message,
                            OwnedFd *descriptor) {
    uint8_t prefix[4];
    if (FrameRead r = read_exact(fd, prefix, sizeof prefix, deadline, descriptor, true); r != FrameRead::Ok) return r;
    uint32_t len = load_le32(prefix);
    if (len < 8 || len > max_length) return FrameRead::BadLength;
    message.resize(len);
    // The rest of the frame came with its length, as a rule.
    return read_exact(fd, message.data(), len, deadline, descriptor, false);
}

std::optional<std::vector<uint8_t>> read_frame_before(int fd, Clock::time_point deadline, uint32_t max_length) {
    std::vector<uint8_t> message;
    if (read_frame_before(fd, deadline, max_length, message) != FrameRead::Ok) return std::nullopt;
    return message;
}

}  // namespace talvex::wire
