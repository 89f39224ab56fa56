// The process's one connection to the simulator: framing, request/reply
// exchange, the queue of interest messages that arrive in between, and the
// wake-up descriptor that the main queue waits on.
//
// Every exchange holds the transport lock from the moment it starts encoding
// its request until it has read its reply, so replies always come back in
// request order and a reply body can be read in place from the input buffer.
//
// The connection is made by wire::reach_simulator (directory, peer and
// greeting checked, all within a time limit). Every exchange then has
// wire::kReplyTimeout to send its request and read its reply; a simulator
// that lets it pass is stuck or gone, and the link is given up.
#pragma once

#include <IOKit/IOReturn.h>

#include <wire.h>

#include "objects.h"

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

namespace talvex::host {

// Where the transport stands.
enum class Link {
    Unconnected,   // nothing tried yet, or the last connect found nothing there (retried on next use)
    Connected,
    Unusable,      // what is there is not a simulator of ours that answers: the registry stays empty
    Dead,          // the simulator went away or stopped answering; every later exchange fails at once
};

// The outcome of one exchange, before the reply's own code is looked at.
enum class Sent {
    Ok,            // a reply arrived: code() and reply() are valid
    NoSimulator,   // none reachable (or not a simulator): the registry is empty
    Failed,        // the simulator went away, or broke the protocol: kIOReturnIPCError
    TimedOut,      // the reply did not come in time: MACH_RCV_TIMED_OUT
};

// One interest message, copied out of its frame.
struct Event {
    uint32_t notification = 0;
    uint64_t entry = 0;
    uint32_t type = 0;
    wire::ArgKind kind = wire::ArgKind::None;
    uint64_t value = 0;
    std::vector<uint8_t> data;
};

class Transport;

// One request and its reply. Holds the transport lock for its whole life:
// encode the body, run(), then read code() and reply() before it goes away.
// The request is written into the transport's reused output buffer.
class Exchange {
public:
    explicit Exchange(wire::Op op);
    ~Exchange();
    Exchange(const Exchange &) = delete;
    Exchange &operator=(const Exchange &) = delete;

    wire::Writer &body() { return out_; }
    Sent run();
    // Sends the request and does not wait for its reply, which a later
    // exchange passes over (replies carry their request's sequence number).
    // For requests whose answer the local state already knows. Ok: it went.
    Sent post();
    int32_t code() const { return code_; }
    // The reply body after the code; valid until this exchange ends.
    wire::Reader reply() const { return wire::Reader(reply_); }
    // A descriptor that arrived with the reply (SCM_RIGHTS), now owned by the
    // caller; -1 when none came.
    int take_fd();

private:
    Transport &t_;
    std::unique_lock<std::mutex> lock_;
    Sent send(std::chrono::steady_clock::time_point deadline, uint32_t &seq);

    wire::Op op_;
    wire::Writer out_;
    int32_t code_ = 0;
    std::span<const uint8_t> reply_;
};

// Maps an exchange outcome that is not Ok to a return code: no simulator
// means `absent`, a reply that never came MACH_RCV_TIMED_OUT, a broken link
// kIOReturnIPCError.
inline kern_return_t link_error(Sent s, kern_return_t absent) {
    switch (s) {
    case Sent::NoSimulator: return absent;
    case Sent::TimedOut: return MACH_RCV_TIMED_OUT;
    default: return kIOReturnIPCError;
    }
}

// Asks the simulator to make something on the registry entry behind
// `service` (a connection, an interest notification): the request is the
// entry's ID and what `write_rest` writes after it, the reply a single u32,
// the simulator's ID of what it made. `entry` and `id` receive the two IDs.
template <class WriteRest>
kern_return_t make_on_entry(io_object_t service, wire::Op op, WriteRest &&write_rest, uint64_t &entry, uint32_t &id) {
    if (kern_return_t kr = entry_of(service, entry)) return kr;
    Exchange ex(op);
    ex.body().u64(entry);
    write_rest(ex.body());
    Sent s = ex.run();
    if (s != Sent::Ok) return link_error(s, kIOReturnNoDevice);
    if (ex.code() != 0) return ex.code();
    wire::Reader r = ex.reply();
    id = r.u32();
    return r.ok() ? kern_return_t{KERN_SUCCESS} : kern_return_t{kIOReturnIPCError};
}

// The process-wide transport.
class Transport {
public:
    static Transport &instance();

    // Reads whatever has arrived without blocking and queues the interest
    // messages (the main queue calls this when the socket is readable).
    void pump();
    // The socket to wait on, or -1 when there is none to wait on.
    int poll_fd();
    // Written whenever a message is queued or the link dies.
    int wake_fd() const { return wake_fd_; }
    // Clears the wake-up descriptor's count.
    void drain_wake();
    // The oldest queued interest message, if any.
    std::optional<Event> pop_event();
    Link link();
    // Drops the link and every queued message, as if nothing had been tried
    // yet (for a harness that plays one simulator after another).
    void reset();

private:
    friend class Exchange;
    Transport();

    // Connects when the link is Unconnected; `first` (a request frame with
    // sequence number 2) then goes in the greeting's write, and its reply is
    // next on the link when the result is Ok.
    Sent ensure_connected(std::span<const uint8_t> first = {});   // lock held
    bool connect_and_hello(std::span<const uint8_t> first);       // lock held
    // Sends nothing; reads until the reply to (op, seq) arrives or the
    // deadline passes. Anything but Ok leaves the link Dead.
    Sent exchange(wire::Op op, uint32_t seq, int32_t &code, std::span<const uint8_t> &body,
                  std::chrono::steady_clock::time_point deadline);   // lock held
    // Reads once into the input buffer, waiting until the deadline at most
    // (not at all without one). Ok: bytes came; TimedOut: none came in time;
    // Failed: the link is gone.
    // With `wait_first` (and a deadline) its first read waits, under the
    // socket's receive timeout: a reply just asked for is not there yet.
    // Descriptors are taken into fds_ only with `descriptors` (a mapping's
    // reply carries one; nothing else does, and the kernel closes any other).
    Sent read_some(std::optional<std::chrono::steady_clock::time_point> deadline, bool wait_first = false,
                   bool descriptors = false);   // lock held
    // Takes the next complete frame out of the input buffer (its bytes stay
    // valid until the next read); false when none is complete. A malformed
    // frame kills the link.
    bool next_frame(uint16_t &op, uint32_t &seq, std::span<const uint8_t> &rest);   // lock held
    void queue_event(std::span<const uint8_t> body);
    void fail();                  // lock held: the link is gone for good
    void wake();
    void close_fds();

    static void before_fork();
    static void after_fork_parent();
    static void after_fork_child();

    std::mutex mu_;
    Link link_ = Link::Unconnected;
    int fd_ = -1;
    bool receive_timeout_ = false;   // SO_RCVTIMEO is the reply timeout: reads may wait
    int wake_fd_ = -1;
    uint32_t seq_ = 0;
    std::vector<uint8_t> out_;
    // Received bytes in [in_begin_, in_end_). Left uninitialised: zeroing it
    // would touch every page of it, where a command's few replies fill one.
    std::unique_ptr<uint8_t[]> in_;
    size_t in_size_ = 0;
    size_t in_begin_ = 0, in_end_ = 0;
    std::vector<int> fds_;        // descriptors received and not yet claimed

    std::mutex events_mu_;
    std::deque<Event> events_;
    size_t dropped_events_ = 0;
};

}  // namespace talvex::host
