#include "transport.h"

#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include <safe_connect.h>

namespace talvex::host {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t kHeader = 8;            // u16 op, u16 flags, u32 seq (after the length)
constexpr size_t kReadChunk = 64 * 1024;
constexpr size_t kMaxQueuedEvents = 100000;

}  // namespace

// ---------------------------------------------------------------- Exchange

Exchange::Exchange(wire::Op op)
    : t_(Transport::instance()), lock_(t_.mu_), op_(op), out_(std::move(t_.out_)) {
    wire::begin_frame(out_, static_cast<uint16_t>(op), 0);   // seq set in send()
}

Exchange::~Exchange() {
    t_.out_ = out_.take();
    for (int fd : t_.fds_) close(fd);
    t_.fds_.clear();
}

Sent Exchange::send(Clock::time_point deadline, uint32_t &seq) {
    const std::span<const uint8_t> out = out_.data();
    wire::end_frame(out_);
    if (t_.link_ == Link::Unconnected) {
        // The first request of a link goes behind the greeting, in its write.
        seq = 2;
        out_.patch_u32(wire::kSeqAt, seq);
        return t_.ensure_connected(out);
    }
    Sent s = t_.ensure_connected();
    if (s != Sent::Ok) return s;
    if (++t_.seq_ == 0) t_.seq_ = 1;   // 0 is the events' sequence number
    seq = t_.seq_;
    out_.patch_u32(wire::kSeqAt, seq);
    if (!wire::send_before(t_.fd_, out, deadline)) {
        t_.fail();
        return Clock::now() >= deadline ? Sent::TimedOut : Sent::Failed;
    }
    return Sent::Ok;
}

Sent Exchange::run() {
    if (out_.data().size() - 4 > wire::kMaxFrame) {
        code_ = kIOReturnMessageTooLarge;
        reply_ = {};
        return Sent::Ok;
    }
    const auto deadline = Clock::now() + wire::kReplyTimeout;
    uint32_t seq = 0;
    if (Sent s = send(deadline, seq); s != Sent::Ok) return s;
    return t_.exchange(op_, seq, code_, reply_, deadline);
}

Sent Exchange::post() {
    uint32_t seq = 0;
    return send(Clock::now() + wire::kReplyTimeout, seq);
}

int Exchange::take_fd() {
    if (t_.fds_.empty()) return -1;
    int fd = t_.fds_.front();
    t_.fds_.erase(t_.fds_.begin());
    return fd;
}

// ---------------------------------------------------------------- Transport

Transport &Transport::instance() {
    // Never destroyed: exit-time callables and other threads may still use it.
    static Transport *t = new Transport;
    return *t;
}

Transport::Transport() {
    wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    out_.reserve(4096);
    in_ = std::make_unique_for_overwrite<uint8_t[]>(kReadChunk);
    in_size_ = kReadChunk;
    pthread_atfork(&Transport::before_fork, &Transport::after_fork_parent, &Transport::after_fork_child);
}

Link Transport::link() {
    std::lock_guard lk(mu_);
    return link_;
}

Sent Transport::ensure_connected(std::span<const uint8_t> first) {
    switch (link_) {
    case Link::Connected: return Sent::Ok;
    case Link::Dead: return Sent::Failed;
    case Link::Unusable: return Sent::NoSimulator;
    case Link::Unconnected: break;
    }
    return connect_and_hello(first) ? Sent::Ok : Sent::NoSimulator;
}

bool Transport::connect_and_hello(std::span<const uint8_t> first) {
    wire::Outcome o = wire::reach_simulator(wire::default_socket_path(), wire::kGreetingTimeout, first);
    if (o.reach != wire::Reach::Answered) {
        // Nothing there is looked for again on the next use; anything else
        // (not ours, refused, not answering) is not asked twice.
        if (o.reach != wire::Reach::NothingThere) link_ = Link::Unusable;
        return false;
    }
    fd_ = o.fd.release();
    // A read that waits for a reply wakes once, when the reply comes, where
    // a poll and then a read would take two calls; the timeout bounds it.
    const auto us = std::chrono::duration_cast<std::chrono::microseconds>(wire::kReplyTimeout).count();
    const timeval limit{static_cast<time_t>(us / 1'000'000), static_cast<suseconds_t>(us % 1'000'000)};
    receive_timeout_ = setsockopt(fd_, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) == 0;
    link_ = Link::Connected;
    in_begin_ = in_end_ = 0;
    seq_ = first.empty() ? 1 : 2;   // the greeting's, or the request's behind it
    return true;
}

Sent Transport::exchange(wire::Op op, uint32_t seq, int32_t &code, std::span<const uint8_t> &body,
                         Clock::time_point deadline) {
    const uint16_t want = static_cast<uint16_t>(static_cast<uint16_t>(op) | wire::kReplyBit);
    // The request has just gone: the first read waits for the reply rather
    // than finding the socket empty first.
    bool just_sent = true;
    for (;;) {
        uint16_t fop;
        uint32_t fseq;
        std::span<const uint8_t> rest;
        while (next_frame(fop, fseq, rest)) {
            if (fop == static_cast<uint16_t>(wire::Op::Event)) {
                queue_event(rest);
                continue;
            }
            if (!(fop & wire::kReplyBit) || fseq != seq) continue;   // a stale reply: not ours
            if (fop != want || rest.size() < 4) {
                fail();
                return Sent::Failed;
            }
            code = static_cast<int32_t>(wire::load_le32(rest.data()));
            body = rest.subspan(4);
            return Sent::Ok;
        }
        if (link_ != Link::Connected) return Sent::Failed;
        if (Sent s = read_some(deadline, just_sent, op == wire::Op::Map); s != Sent::Ok) {
            fail();
            return s;
        }
        just_sent = false;
    }
}

Sent Transport::read_some(std::optional<Clock::time_point> deadline, bool wait_first, bool descriptors) {
    if (in_begin_ == in_end_) in_begin_ = in_end_ = 0;
    // Room for the rest of a partly read frame, and at least one chunk.
    size_t need = kReadChunk;
    size_t have = in_end_ - in_begin_;
    if (have >= 4) {
        uint32_t len = wire::load_le32(in_.get() + in_begin_);
        if (len <= wire::kMaxFrame && 4 + static_cast<size_t>(len) > have) need = std::max(need, 4 + len - have);
    }
    if (in_size_ - in_end_ < need) {
        if (in_begin_ > 0) {
            std::memmove(in_.get(), in_.get() + in_begin_, have);
            in_begin_ = 0;
            in_end_ = have;
        }
        if (in_size_ - in_end_ < need) {
            auto bigger = std::make_unique_for_overwrite<uint8_t[]>(in_end_ + need);
            std::memcpy(bigger.get(), in_.get(), in_end_);
            in_ = std::move(bigger);
            in_size_ = in_end_ + need;
        }
    }

    // The first read after a request waits in the read itself; an early
    // return (a signal, the timeout) goes on as below.
    bool wait = wait_first && deadline && receive_timeout_;
    for (;;) {
        ssize_t n = wire::receive_some(fd_, std::span(in_.get() + in_end_, in_size_ - in_end_),
                                       descriptors ? &fds_ : nullptr, wait);
        wait = false;
        if (n < 0 && errno == EINTR) continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!deadline) return Sent::TimedOut;
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now()).count();
            if (left <= 0) return Sent::TimedOut;
            pollfd p{fd_, POLLIN, 0};
            // Rounded up, so the wait never ends just short of the deadline.
            if (poll(&p, 1, static_cast<int>(std::min<long long>(left + 1, 60'000))) < 0 && errno != EINTR)
                return Sent::Failed;
            continue;
        }
        if (n <= 0) return Sent::Failed;
        in_end_ += static_cast<size_t>(n);
        return Sent::Ok;
    }
}

bool Transport::next_frame(uint16_t &op, uint32_t &seq, std::span<const uint8_t> &rest) {
    if (link_ != Link::Connected) return false;
    size_t have = in_end_ - in_begin_;
    if (have < 4) return false;
    const uint8_t *p = in_.get() + in_begin_;
    uint32_t len = wire::load_le32(p);
    if (len < kHeader || len > wire::kMaxFrame) {
        fail();
        return false;
    }
    if (have - 4 < len) return false;
    op = wire::load_le16(p + 4);
    seq = wire::load_le32(p + 8);
    rest = std::span<const uint8_t>(p + 4 + kHeader, len - kHeader);
    in_begin_ += 4 + static_cast<size_t>(len);
    return true;
}

void Transport::queue_event(std::span<const uint8_t> body) {
    wire::Reader r(body);
    Event ev;
    ev.notification = r.u32();
    ev.entry = r.u64();
    ev.type = r.u32();
    uint8_t kind = r.u8();
    switch (kind) {
    case static_cast<uint8_t>(wire::ArgKind::None): ev.kind = wire::ArgKind::None; break;
    case static_cast<uint8_t>(wire::ArgKind::Value):
        ev.kind = wire::ArgKind::Value;
        ev.value = r.u64();
        break;
    case static_cast<uint8_t>(wire::ArgKind::Data): {
        ev.kind = wire::ArgKind::Data;
        auto bytes = r.blob();
        ev.data.assign(bytes.begin(), bytes.end());
        break;
    }
    default: return;   // an argument kind we do not know: not deliverable
    }
    if (!r.ok()) return;   // a truncated message is dropped
    {
        std::lock_guard lk(events_mu_);
        if (events_.size() >= kMaxQueuedEvents) {
            ++dropped_events_;
            return;
        }
        events_.push_back(std::move(ev));
    }
    wake();
}

std::optional<Event> Transport::pop_event() {
    std::lock_guard lk(events_mu_);
    if (events_.empty()) return std::nullopt;
    Event ev = std::move(events_.front());
    events_.pop_front();
    return ev;
}

void Transport::pump() {
    std::lock_guard lk(mu_);
    while (link_ == Link::Connected) {
        if (Sent s = read_some(std::nullopt); s != Sent::Ok) {
            if (s == Sent::Failed) fail();
            break;
        }
        uint16_t op;
        uint32_t seq;
        std::span<const uint8_t> rest;
        while (next_frame(op, seq, rest))
            if (op == static_cast<uint16_t>(wire::Op::Event)) queue_event(rest);
    }
}

int Transport::poll_fd() {
    std::lock_guard lk(mu_);
    return link_ == Link::Connected ? fd_ : -1;
}

void Transport::drain_wake() {
    uint64_t count;
    if (wake_fd_ >= 0 && read(wake_fd_, &count, sizeof count) < 0) {
        // nothing was pending
    }
}

void Transport::wake() {
    uint64_t one = 1;
    if (wake_fd_ >= 0 && write(wake_fd_, &one, sizeof one) < 0) {
        // the counter is saturated: a wake-up is pending anyway
    }
}

void Transport::reset() {
    std::lock_guard lk(mu_);
    close_fds();
    link_ = Link::Unconnected;
    std::lock_guard ek(events_mu_);
    events_.clear();
    dropped_events_ = 0;
}

void Transport::fail() {
    close_fds();
    link_ = Link::Dead;
    wake();
}

void Transport::close_fds() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
    for (int fd : fds_) close(fd);
    fds_.clear();
    in_begin_ = in_end_ = 0;
}

// A forked child shares nothing with its parent's link: it starts unconnected
// with its own wake-up descriptor.
void Transport::before_fork() {
    Transport &t = instance();
    t.mu_.lock();
    t.events_mu_.lock();
}

void Transport::after_fork_parent() {
    Transport &t = instance();
    t.events_mu_.unlock();
    t.mu_.unlock();
}

void Transport::after_fork_child() {
    Transport &t = instance();
    t.close_fds();
    t.link_ = Link::Unconnected;
    if (t.wake_fd_ >= 0) close(t.wake_fd_);
    t.wake_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    t.events_.clear();
    t.dropped_events_ = 0;
    t.events_mu_.unlock();
    t.mu_.unlock();
}

}  // namespace talvex::host
