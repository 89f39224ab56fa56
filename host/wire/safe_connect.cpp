#include "safe_connect.h"

#include <IOKit/IOReturn.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "wire.h"

namespace talvex::wire {

namespace {

using Clock = std::chrono::steady_clock;

// A simulator's answer to the greeting is 16 bytes; nothing longer is read.
constexpr uint32_t kMaxGreetingFrame = 4096;

Outcome outcome(Reach reach, std::string detail) {
    Outcome o;
    o.reach = reach;
    o.detail = std::move(detail);
    return o;
}

// "user UID (name)", the name from the password file. The tool is linked
// statically, where the C library's user look-up would have to load name-service
// modules of the very version it was built with; reading the file needs nothing.
std::string user_name(uid_t uid) {
    std::string out = "user " + std::to_string(uid);
    FILE *f = std::fopen("/etc/passwd", "re");
    if (!f) return out;
    char line[1024];
    std::string id = std::to_string(uid);   // the field as it stands between colons
    id.insert(id.begin(), ':');
    id.push_back(':');
    for (bool whole = true; std::fgets(line, sizeof line, f);) {
        // name:password:uid:... (the rest of a line longer than the buffer is skipped)
        const bool starts_line = whole;
        whole = std::strchr(line, '\n') != nullptr;
        if (!starts_line) continue;
        const char *colon = std::strchr(line, ':');
        const char *uid_field = colon ? std::strchr(colon + 1, ':') : nullptr;
        if (uid_field && colon != line && std::strncmp(uid_field, id.c_str(), id.size()) == 0) {
            out.append(" (").append(line, static_cast<size_t>(colon - line)).append(")");
            break;
        }
    }
    std::fclose(f);
    return out;
}

std::string duration_text(std::chrono::milliseconds d) {
    if (d.count() % 1000 == 0) return std::to_string(d.count() / 1000) + " s";
    return std::to_string(d.count()) + " ms";
}

int ms_left(Clock::time_point deadline) {
    auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
    return static_cast<int>(std::clamp<long long>(left, 0, INT_MAX));
}

}  // namespace

std::string socket_directory(const std::string &path) {
    auto slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

DirectoryCheck check_socket_directory(const std::string &dir) {
    DirectoryCheck c;
    struct stat st;
    if (lstat(dir.c_str(), &st) != 0) {
        c.state = errno == ENOENT ? DirectoryCheck::Missing : DirectoryCheck::Unusable;
        c.why = std::strerror(errno);
        return c;
    }
    c.state = DirectoryCheck::NotPrivate;
    if (S_ISLNK(st.st_mode)) {
        c.why = "is a symbolic link";
    } else if (!S_ISDIR(st.st_mode)) {
        c.why = "is not a directory";
    } else if (st.st_uid != geteuid()) {
        c.why = "belongs to " + user_name(st.st_uid);
        c.foreign_owner = true;
    } else if (st.st_mode & (S_IWGRP | S_IXGRP | S_IWOTH | S_IXOTH)) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        c.why = std::string("is open to other users (mode ") + mode + "; it must be 0700)";
    } else {
        c.state = DirectoryCheck::Private;
    }
    return c;
}

Outcome connect_checked(const std::string &path, std::chrono::milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    if (path.empty()) return outcome(Reach::NothingThere, "no socket path");
    const std::optional<sockaddr_un> sa = socket_address(path);
    if (!sa)
        return outcome(Reach::PathTooLong, std::to_string(path.size()) + " bytes; a socket path must be shorter than " +
                                               std::to_string(kMaxSocketPath + 1));

    const std::string dir = socket_directory(path);
    DirectoryCheck check = check_socket_directory(dir);
    switch (check.state) {
    case DirectoryCheck::Private: break;
    case DirectoryCheck::Missing: return outcome(Reach::NothingThere, "no directory " + dir);
    case DirectoryCheck::NotPrivate: return outcome(Reach::DirectoryNotPrivate, "its directory " + dir + " " + check.why);
    case DirectoryCheck::Unusable: return outcome(Reach::Failed, "cannot check its directory " + dir + ": " + check.why);
    }

    OwnedFd fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    if (!fd) return outcome(Reach::Failed, std::strerror(errno));
    // A Unix stream connect never reports "in progress": a full queue of new
    // connections makes a non-blocking one fail at once. A blocking one waits
    // for room, as long as the socket's send timeout allows.
    for (;;) {
        int left = std::max(ms_left(deadline), 1);
        timeval limit{left / 1000, (left % 1000) * 1000};
        setsockopt(fd.get(), SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (connect(fd.get(), reinterpret_cast<const sockaddr *>(&*sa), sizeof *sa) == 0) break;
        int err = errno;
        if (err == EINTR && ms_left(deadline) > 0) continue;
        switch (err) {
        case ENOENT: return outcome(Reach::NothingThere, "no socket file");
        case ECONNREFUSED: return outcome(Reach::NothingThere, "nobody listens on the socket");
        case EAGAIN:
        case EINTR:
            return outcome(Reach::RefusedOrFull,
                           "its queue of new connections stayed full for " + duration_text(timeout));
        default: return outcome(Reach::Failed, std::strerror(err));
        }
    }
    ucred cred{};
    socklen_t len = sizeof cred;
    if (getsockopt(fd.get(), SOL_SOCKET, SO_PEERCRED, &cred, &len) != 0)
        return outcome(Reach::Failed, std::strerror(errno));
    if (cred.uid != geteuid())
        return outcome(Reach::PeerNotYours, "the process listening there runs as " + user_name(cred.uid));
    Outcome o = outcome(Reach::Answered, {});
    o.fd = std::move(fd);
    return o;
}

Outcome reach_simulator(const std::string &path, std::chrono::milliseconds timeout, std::span<const uint8_t> first) {
    const auto deadline = Clock::now() + timeout;
    Outcome o = connect_checked(path, timeout);
    if (o.reach != Reach::Answered) return o;

    Writer hello;
    hello.u32(kProtocolVersion);
    hello.u32(static_cast<uint32_t>(getpid()));
    // A simulator with no room answers with its refusal and closes at once,
    // perhaps before the greeting is through: the answer is read either way.
    std::vector<uint8_t> out = make_request(Op::Hello, 1, hello.data());
    out.insert(out.end(), first.begin(), first.end());
    send_before(o.fd.get(), out, deadline);
    std::vector<uint8_t> frame;
    switch (read_frame_before(o.fd.get(), deadline, kMaxGreetingFrame, frame)) {
    case FrameRead::Ok: break;
    case FrameRead::TimedOut: return outcome(Reach::TimedOut, "no answer to the greeting within " + duration_text(timeout));
    case FrameRead::Closed:
        return outcome(Reach::RefusedOrFull, "it closed the connection without answering the greeting");
    case FrameRead::BadLength: return outcome(Reach::NotASimulator, "its answer to the greeting is not a frame");
    }
    Reader r(frame);
    uint16_t op = r.u16();
    r.u16();
    uint32_t seq = r.u32();
    int32_t code = r.i32();
    uint32_t version = r.u32();
    constexpr uint16_t kHelloReply = static_cast<uint16_t>(Op::Hello) | kReplyBit;
    if (op == kHelloReply && code == kIOReturnNoResources)
        return outcome(Reach::RefusedOrFull, "the simulator has no room for another client");
    char text[96];
    if (op != kHelloReply || seq != 1) {
        std::snprintf(text, sizeof text, "it answered the greeting with a frame of kind %#x", op);
        return outcome(Reach::NotASimulator, text);
    }
    if (code != 0) {
        std::snprintf(text, sizeof text, "it refused the greeting with code %#x", static_cast<unsigned>(code));
        return outcome(Reach::NotASimulator, text);
    }
    if (!r.ok() || version != kProtocolVersion) {
        std::snprintf(text, sizeof text, "it speaks protocol version %u, not %u", version, kProtocolVersion);
        return outcome(Reach::NotASimulator, text);
    }
    return o;
}

std::string reason(const Outcome &o) {
    switch (o.reach) {
    case Reach::Answered: return "it answers";
    case Reach::NothingThere: return "nothing there (" + o.detail + ")";
    case Reach::DirectoryNotPrivate:
    case Reach::PeerNotYours: return "not yours: " + o.detail;
    case Reach::RefusedOrFull: return "refused or full: " + o.detail;
    case Reach::NotASimulator: return "not a simulator: " + o.detail;
    case Reach::PathTooLong: return "path too long (" + o.detail + ")";
    case Reach::TimedOut: return "timed out: " + o.detail;
    case Reach::Failed: break;
    }
    return "cannot connect: " + o.detail;
}

std::string explain(const Outcome &o, std::string_view path) {
    if (o.reach == Reach::Answered) return "a simulator answers at " + std::string(path);
    return "no simulator at " + std::string(path) + ": " + reason(o);
}

}  // namespace talvex::wire
