// Raw protocol peers for tests, both ends of the socket: RawClient speaks to
// a simulator as no well-behaved library would (any frame, any body), and
// FakePeer plays a scripted simulator to the library's own client. Frames
// are built and read with talvex::wire.
#pragma once

#include "harness.h"
#include "socket_io.h"
#include "wire.h"

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>
#include <IOKit/IOReturn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <functional>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

namespace talvex::test {

struct Frame {
    uint16_t op = 0;
    uint32_t seq = 0;
    int32_t code = 0;                // replies only
    std::vector<uint8_t> body;       // after the code (replies) or the header (requests, events)
    int fd = -1;                     // a descriptor that came with the frame (owned by the reader)
};

// Sends all of `bytes` within ten seconds.
inline bool send_all(int fd, std::span<const uint8_t> bytes) {
    return wire::send_before(fd, bytes, std::chrono::steady_clock::now() + std::chrono::seconds(10));
}

// One frame (request, reply or event); nothing on timeout, error, end of
// stream or a length no frame may have.
inline std::optional<Frame> read_frame(int fd, std::chrono::milliseconds timeout) {
    std::vector<uint8_t> msg;
    wire::OwnedFd descriptor;
    if (wire::read_frame_before(fd, std::chrono::steady_clock::now() + timeout, wire::kMaxFrame, msg, &descriptor) !=
        wire::FrameRead::Ok)
        return std::nullopt;
    Frame f;
    f.fd = descriptor.release();
    f.op = wire::load_le16(msg.data());
    f.seq = wire::load_le32(msg.data() + 4);
    size_t body_at = 8;
    if (f.op & wire::kReplyBit) {
        if (msg.size() < 12) {
            if (f.fd >= 0) close(f.fd);
            return std::nullopt;
        }
        f.code = static_cast<int32_t>(wire::load_le32(msg.data() + 8));
        body_at = 12;
    }
    f.body.assign(msg.begin() + static_cast<std::ptrdiff_t>(body_at), msg.end());
    return f;
}

// A socket listening at `path`, or connected to it; -1 when that fails.
inline int unix_socket(const std::string &path, bool listening) {
    return (listening ? wire::listen_at(path, 4) : wire::connect_to(path)).release();
}

// A call's code, output structure and output scalars; little-endian reads of
// the structure fail the test rather than read past it.
struct CallResult {
    int32_t code = 0;
    std::vector<uint8_t> out;
    std::vector<uint64_t> scalars;

    uint32_t u32(size_t at) const {
        if (at + 4 > out.size()) {
            ADD_FAILURE() << "no 4 bytes at " << at << " in a reply of " << out.size();
            return 0;
        }
        return wire::load_le32(out.data() + at);
    }
    int32_t i32(size_t at) const { return static_cast<int32_t>(u32(at)); }
    uint16_t u16(size_t at) const { return static_cast<uint16_t>(u32(at) & 0xffff); }
};

// A Call request's body, and the scalars and structure of its reply's.
inline wire::Writer call_request(uint32_t conn, uint32_t selector, const std::vector<uint64_t> &scalars,
                                 std::span<const uint8_t> input, uint32_t scalar_capacity, uint64_t output_capacity,
                                 bool pass_output) {
    wire::Writer w;
    w.u32(conn);
    w.u32(selector);
    w.u32(static_cast<uint32_t>(scalars.size()));
    for (auto s : scalars) w.u64(s);
    w.blob(input);
    w.u32(scalar_capacity);
    w.u64(output_capacity);
    w.u8(static_cast<uint8_t>((pass_output ? 1 : 0) | (input.empty() ? 0 : 2)));
    return w;
}
inline bool read_call_reply(std::span<const uint8_t> body, CallResult &out) {
    wire::Reader r(body);
    for (uint32_t i = 0, n = r.u32(); i < n && r.ok(); ++i) out.scalars.push_back(r.u64());
    auto o = r.blob();
    out.out.assign(o.begin(), o.end());
    return r.at_end();
}

// A client that sends whatever it is told to; typed helpers fail the test on a
// failed exchange and give an empty result.
class RawClient {
public:
    explicit RawClient(const std::string &path) : fd_(unix_socket(path, false)) {}
    ~RawClient() {
        if (fd_ >= 0) close(fd_);
    }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool connected() const { return fd_ >= 0; }
    int fd() const { return fd_; }
    bool send_bytes(std::span<const uint8_t> bytes) { return send_all(fd_, bytes); }
    std::optional<Frame> read_frame(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        return talvex::test::read_frame(fd_, timeout);
    }

    // Sends a request and returns its reply; events read meanwhile are kept.
    std::optional<Frame> request(wire::Op op, std::span<const uint8_t> body) {
        uint32_t seq = next_seq_++;
        if (!send_bytes(wire::make_request(op, seq, body))) return std::nullopt;
        for (;;) {
            auto f = read_frame();
            if (!f) return std::nullopt;
            if (f->op == static_cast<uint16_t>(wire::Op::Event)) {
                events.push_back(std::move(*f));
                continue;
            }
            EXPECT_EQ(f->op, static_cast<uint16_t>(static_cast<uint16_t>(op) | wire::kReplyBit));
            EXPECT_EQ(f->seq, seq);
            return f;
        }
    }
    std::optional<Frame> request(wire::Op op, const wire::Writer &w) { return request(op, std::span(w.data())); }

    // The next event (already received or arriving within the timeout).
    std::optional<Frame> next_event(std::chrono::milliseconds timeout = std::chrono::seconds(5)) {
        if (events.empty()) return read_frame(timeout);
        Frame f = std::move(events.front());
        events.pop_front();
        return f;
    }

    std::vector<uint64_t> match(CFDictionaryRef dict, uint64_t *generation = nullptr, int32_t *code = nullptr) {
        CFDataRef data = IOCFSerialize(dict, 0);
        wire::Writer w;
        w.blob({CFDataGetBytePtr(data), static_cast<size_t>(CFDataGetLength(data))});
        CFRelease(data);
        auto f = request(wire::Op::Match, w);
        std::vector<uint64_t> ids;
        if (!f) {
            ADD_FAILURE() << "no reply to Match";
            return ids;
        }
        if (code) *code = f->code;
        wire::Reader r(f->body);
        uint64_t gen = r.u64();
        for (uint32_t i = 0, n = r.u32(); i < n && r.ok(); ++i) ids.push_back(r.u64());
        if (generation) *generation = gen;
        return ids;
    }
    std::vector<uint64_t> match_class(const char *cls, uint64_t *generation = nullptr) {
        CFMutableDictionaryRef d = CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                             &kCFTypeDictionaryValueCallBacks);
        CFStringRef v = CFStringCreateWithCString(nullptr, cls, kCFStringEncodingUTF8);
        CFDictionarySetValue(d, CFSTR("IOProviderClass"), v);
        auto ids = match(d, generation);
        CFRelease(v);
        CFRelease(d);
        return ids;
    }
    uint64_t service(const char *cls) {
        auto ids = match_class(cls);
        EXPECT_EQ(ids.size(), 1u) << cls;
        return ids.empty() ? 0 : ids[0];
    }

    // Opens a user client; returns its connection ID (0 on failure, with the code).
    uint32_t open(uint64_t entry, uint32_t type, int32_t *code = nullptr) {
        wire::Writer w;
        w.u64(entry);
        w.u32(type);
        auto f = request(wire::Op::Open, w);
        if (!f) return 0;
        if (code) *code = f->code;
        return f->code != 0 ? 0 : wire::Reader(f->body).u32();
    }

    CallResult call(uint32_t conn, uint32_t selector, std::vector<uint64_t> scalars, std::vector<uint8_t> input,
                    uint32_t scalar_capacity, uint64_t output_capacity, bool pass_output = true) {
        CallResult out;
        auto f = request(wire::Op::Call,
                         call_request(conn, selector, scalars, input, scalar_capacity, output_capacity, pass_output));
        if (!f) {
            ADD_FAILURE() << "no reply to Call";
            out.code = -1;
            return out;
        }
        out.code = f->code;
        // A request refused before it reached the method has an empty reply body.
        EXPECT_TRUE(read_call_reply(f->body, out) || (f->body.empty() && f->code != 0));
        return out;
    }

    // The property's value (owned by the caller), or null with the code.
    CFTypeRef property(uint64_t entry, const char *key, int32_t *code = nullptr) {
        wire::Writer w;
        w.u64(entry);
        w.str(key);
        auto f = request(wire::Op::GetProperty, w);
        if (!f) return nullptr;
        if (code) *code = f->code;
        if (f->code != 0) return nullptr;
        auto b = wire::Reader(f->body).blob();
        return IOCFUnserializeWithSize(reinterpret_cast<const char *>(b.data()), b.size(), nullptr, 0, nullptr);
    }

    uint32_t add_interest(uint64_t entry, const char *type = "IOGeneralInterest") {
        wire::Writer w;
        w.u64(entry);
        w.str(type);
        auto f = request(wire::Op::AddInterest, w);
        return !f || f->code != 0 ? 0 : wire::Reader(f->body).u32();
    }

    std::deque<Frame> events;

private:
    int fd_ = -1;
    uint32_t next_seq_ = 1;
};

// A control command sent over the protocol (no child process).
inline std::optional<Frame> control(RawClient &c, const std::vector<std::string> &words) {
    wire::Writer w;
    w.u32(static_cast<uint32_t>(words.size()));
    for (auto &s : words) w.str(s);
    return c.request(wire::Op::Control, w);
}

struct Request {
    wire::Op op;
    uint32_t seq;
    std::vector<uint8_t> body;
};

// A listening socket in a fresh directory with one thread that accepts a
// single client and runs `script` on it.
class FakePeer {
public:
    using Script = std::function<void(FakePeer &)>;
    explicit FakePeer(Script script) {
        socket_ = dir_.path + "/peer.sock";
        listen_fd_ = unix_socket(socket_, true);
        if (listen_fd_ < 0) throw std::runtime_error("cannot listen on " + socket_);
        thread_ = std::thread([this, script = std::move(script)] {
            int fd = accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
            if (fd < 0) return;
            client_ = fd;
            script(*this);
        });
    }
    ~FakePeer() {
        // Unblock a script still waiting for the client or for a request.
        shutdown(listen_fd_, SHUT_RDWR);
        if (client_ >= 0) shutdown(client_, SHUT_RDWR);
        thread_.join();
        if (client_ >= 0) close(client_);
        close(listen_fd_);
    }
    FakePeer(const FakePeer &) = delete;
    FakePeer &operator=(const FakePeer &) = delete;
    const std::string &socket() const { return socket_; }

    // For scripts: read one request (false at end of stream or when none
    // comes in time), answer.
    bool read(Request &req, std::chrono::milliseconds timeout = std::chrono::minutes(1)) {
        auto f = read_frame(client_, timeout);
        if (!f) return false;
        if (f->fd >= 0) close(f->fd);
        req = {static_cast<wire::Op>(f->op), f->seq, std::move(f->body)};
        return true;
    }
    void send(std::span<const uint8_t> bytes) { send_all(client_, bytes); }
    void send_fd(std::span<const uint8_t> bytes, int fd) {
        wire::send_with_descriptor_before(client_, bytes, fd, std::chrono::steady_clock::now() + std::chrono::minutes(1));
    }
    void reply(const Request &req, int32_t code, std::span<const uint8_t> body) {
        send(wire::make_reply(req.op, req.seq, code, body));
    }
    // Answers the Hello properly.
    bool greet() {
        Request req;
        if (!read(req) || req.op != wire::Op::Hello) return false;
        wire::Writer w;
        w.u32(wire::kProtocolVersion);
        reply(req, 0, w.data());
        return true;
    }
    // Ends the connection (the client sees the end of the stream).
    void hang_up() { shutdown(client_, SHUT_RDWR); }

private:
    TempDir dir_;
    std::string socket_;
    int listen_fd_ = -1;
    std::atomic<int> client_{-1};
    std::thread thread_;
};

// Scripts: a peer that reads everything and never answers; one that turns
// the client away as a simulator with no room does (one refusal, then it
// hangs up).
inline void never_answer(FakePeer &p) {
    Request req;
    while (p.read(req)) {
    }
}
inline void refuse_as_full(FakePeer &p) {
    p.send(wire::make_reply(wire::Op::Hello, 0, kIOReturnNoResources, {}));
    p.hang_up();
}
// A simulator that greets, finds one service (ID 42) and opens user clients
// on it (connection 9), then stops answering at the first request of kind
// `stall` (the greeting, a match, an open or anything else); `later` counts
// the requests that come after that one.
inline FakePeer::Script stall_at(wire::Op stall, std::atomic<int> *later = nullptr) {
    return [stall, later](FakePeer &p) {
        Request req;
        while (p.read(req) && req.op != stall) {
            wire::Writer w;
            switch (req.op) {
            case wire::Op::Hello: w.u32(wire::kProtocolVersion); break;
            case wire::Op::Match:
                w.u64(1);
                w.u32(1);
                w.u64(42);
                break;
            case wire::Op::Open: w.u32(9); break;
            default: break;
            }
            p.reply(req, 0, w.data());
        }
        while (p.read(req))
            if (later) ++*later;
    };
}

// Commands that must fail: run at once, each must end within `bound` with
// status 1, its standard output and its standard error (normalised).
struct FailingRun {
    std::vector<std::string> argv;
    Env env;
    std::string out, err;
};
inline void expect_all_fail(const std::vector<FailingRun> &runs, std::chrono::milliseconds bound) {
    std::vector<std::pair<std::vector<std::string>, Env>> commands;
    for (const FailingRun &run : runs) commands.push_back({run.argv, run.env});
    auto results = run_together(commands, bound);
    for (size_t i = 0; i < runs.size(); ++i) {
        const std::string what = "row " + std::to_string(i) + ": " + runs[i].argv.back();
        EXPECT_FALSE(results[i].timed_out) << what;
        EXPECT_EQ(results[i].status, 1) << what;
        EXPECT_EQ(results[i].out, runs[i].out) << what;
        EXPECT_EQ(normalise(results[i].err), runs[i].err) << what;
    }
}

// A listening socket in a fresh private directory whose queue of new
// connections is full: it accepts nobody, and nobody more gets in.
class FullListener {
public:
    FullListener() : socket_(dir_.path + "/full.sock"), listen_fd_(wire::listen_at(socket_, 0)) {
        if (!listen_fd_) throw std::runtime_error("cannot listen on " + socket_);
        while (wire::OwnedFd fd = wire::connect_to(socket_, SOCK_NONBLOCK)) queued_.push_back(std::move(fd));
    }
    const std::string &socket() const { return socket_; }

private:
    TempDir dir_;
    std::string socket_;
    wire::OwnedFd listen_fd_;
    std::vector<wire::OwnedFd> queued_;   // closed before the listener, then the directory goes
};

}  // namespace talvex::test
