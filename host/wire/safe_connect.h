// Reaching a simulator without trusting anything on the way: the one routine
// that the platform layer, every talvexsim control command and `talvexsim
// status` use to open a connection.
//
// Before the first byte is sent the socket's directory must be a real
// directory (not a symbolic link) owned by this user and closed to group and
// others, the connection must be made within a time limit (a stopped
// simulator or a full queue of new connections cannot hold it up), and the
// process listening must run as this user. Then the greeting (Hello) must be
// answered as a simulator answers it, within the same limit.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>

#include "owned_fd.h"
#include "socket_io.h"

namespace talvex::wire {

// How far a connection got, and why not further.
enum class Reach {
    Answered,              // a simulator of this user answered (connect_checked: accepted the connection)
    NothingThere,          // no directory, no socket file, or nobody listening on it
    DirectoryNotPrivate,   // the directory is a symbolic link, not a directory, another user's, or open to others
    PeerNotYours,          // the process listening there runs as another user
    RefusedOrFull,         // the simulator has no room for another client (it said so, or its queue stayed full)
    NotASimulator,         // something answered the greeting, but not as a simulator does
    PathTooLong,           // the path does not fit a socket address
    TimedOut,              // no answer to the greeting in time
    Failed,                // the connection failed for another reason
};

struct Outcome {
    Reach reach = Reach::Failed;
    std::string detail;   // the particulars: which directory and whose, which user, which code, which error
    OwnedFd fd;           // the connection, when reach is Answered
};

// The greeting's limit, connection included.
inline constexpr std::chrono::milliseconds kGreetingTimeout{5000};
// How long a request's reply is awaited (the simulator's methods never block,
// so a reply that does not come means the simulator is gone or stuck).
inline constexpr std::chrono::milliseconds kReplyTimeout{10000};

// The directory part of a socket path ("." when there is none).
std::string socket_directory(const std::string &path);

// Whether `dir` may hold a socket of this user: a real directory of ours
// that group and others can neither enter nor write.
struct DirectoryCheck {
    enum State { Private, Missing, NotPrivate, Unusable } state = Unusable;
    // For NotPrivate, what is wrong, said of the directory ("belongs to user
    // 65534 (nobody)", "is a symbolic link", "is open to other users (mode
    // 0755; it must be 0700)"); for Unusable, why it could not be checked.
    std::string why;
    bool foreign_owner = false;   // NotPrivate because another user owns it
};
DirectoryCheck check_socket_directory(const std::string &dir);

// Checks the directory, connects within `timeout` and checks the peer; sends
// nothing.
Outcome connect_checked(const std::string &path, std::chrono::milliseconds timeout);
// connect_checked, then the greeting (sequence number 1), all within `timeout`.
// On Answered the connection is ready for requests. `first`, when not empty,
// is a whole request frame (sequence number 2) that goes right behind the
// greeting, in the same write, so that its reply needs no round trip of its
// own; it goes only to a peer that connect_checked accepted, and on Answered
// its reply is next on the connection, for the caller to read.
Outcome reach_simulator(const std::string &path, std::chrono::milliseconds timeout = kGreetingTimeout,
                        std::span<const uint8_t> first = {});

// Why an outcome is not Answered, as a phrase: "nothing there (...)", "not
// yours: ...", "refused or full: ...", "path too long (...)", "timed out: ...".
std::string reason(const Outcome &outcome);
// The one-line explanation: "a simulator answers at PATH", or "no simulator
// at PATH: " followed by the reason.
std::string explain(const Outcome &outcome, std::string_view path);

}  // namespace talvex::wire
