// A raw protocol client for simulator tests: frames built with talvex::wire,
// sent over a plain Unix socket, replies read back (with any descriptor that
// travels with them) and events kept aside.
#pragma once

#include <CoreFoundation/CoreFoundation.h>
#include <IOKit/IOCFSerialize.h>
#include <IOKit/IOCFUnserialize.h>
#include <IOKit/IOReturn.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <deque>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "wire.h"

namespace talvex::test {

struct Frame {
    uint16_t op = 0;
    uint32_t seq = 0;
    int32_t code = 0;                // replies only
    std::vector<uint8_t> body;       // after the code (replies) or the header (events)
    int fd = -1;                     // a descriptor that came with the frame (owned by the test)
};

struct CallOut {
    int32_t code = 0;
    std::vector<uint64_t> scalars;
    std::vector<uint8_t> output;
};

class RawClient {
public:
    explicit RawClient(const std::string &path) {
        fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un sa{};
        sa.sun_family = AF_UNIX;
        std::strncpy(sa.sun_path, path.c_str(), sizeof sa.sun_path - 1);
        connected_ = connect(fd_, reinterpret_cast<sockaddr *>(&sa), sizeof sa) == 0;
    }
    ~RawClient() {
        if (fd_ >= 0) close(fd_);
    }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    bool connected() const { return connected_; }
    int fd() const { return fd_; }
    void close_now() {
        if (fd_ >= 0) close(fd_);
        fd_ = -1;
    }

    bool send_bytes(std::span<const uint8_t> bytes) {
        size_t done = 0;
        while (done < bytes.size()) {
            ssize_t n = ::send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
            if (n <= 0) return false;
            done += static_cast<size_t>(n);
        }
        return true;
    }

    // Reads one frame; nothing on timeout, error or end of stream.
    std::optional<Frame> read_frame(std::chrono::milliseconds timeout = std::chrono::seconds(10)) {
        auto deadline = std::chrono::steady_clock::now() + timeout;
        Frame f;
        uint8_t len_bytes[4];
        if (!read_exact(len_bytes, 4, deadline, &f.fd)) return std::nullopt;
        uint32_t len = wire::load_le32(len_bytes);
        std::vector<uint8_t> msg(len);
        if (len < 8 || !read_exact(msg.data(), len, deadline, &f.fd)) return std::nullopt;
        f.op = wire::load_le16(msg.data());
        f.seq = wire::load_le32(msg.data() + 4);
        size_t body_at = 8;
        if (f.op & wire::kReplyBit) {
            if (len < 12) return std::nullopt;
            f.code = static_cast<int32_t>(wire::load_le32(msg.data() + 8));
            body_at = 12;
        }
        f.body.assign(msg.begin() + static_cast<std::ptrdiff_t>(body_at), msg.end());
        return f;
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
        if (!events.empty()) {
            Frame f = std::move(events.front());
            events.pop_front();
            return f;
        }
        auto f = read_frame(timeout);
        if (f) {
            EXPECT_EQ(f->op, static_cast<uint16_t>(wire::Op::Event));
        }
        return f;
    }

    // ---- typed helpers; a failed exchange fails the test and yields an empty result
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
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok(); ++i) ids.push_back(r.u64());
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
        if (f->code != 0) return 0;
        wire::Reader r(f->body);
        return r.u32();
    }

    CallOut call(uint32_t conn, uint32_t selector, std::vector<uint64_t> scalars, std::vector<uint8_t> input,
                 uint32_t scalar_capacity, uint64_t output_capacity, bool pass_output = true) {
        wire::Writer w;
        w.u32(conn);
        w.u32(selector);
        w.u32(static_cast<uint32_t>(scalars.size()));
        for (auto s : scalars) w.u64(s);
        w.blob(input);
        w.u32(scalar_capacity);
        w.u64(output_capacity);
        w.u8(static_cast<uint8_t>((pass_output ? 1 : 0) | (input.empty() ? 0 : 2)));
        CallOut out;
        auto f = request(wire::Op::Call, w);
        if (!f) {
            ADD_FAILURE() << "no reply to Call";
            out.code = -1;
            return out;
        }
        out.code = f->code;
        wire::Reader r(f->body);
        uint32_t n = r.u32();
        for (uint32_t i = 0; i < n && r.ok(); ++i) out.scalars.push_back(r.u64());
        auto o = r.blob();
        out.output.assign(o.begin(), o.end());
        // A request refused before it reached the method has an empty reply body.
        EXPECT_TRUE(r.at_end() || (f->body.empty() && f->code != 0));
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
        wire::Reader r(f->body);
        auto b = r.blob();
        return IOCFUnserializeWithSize(reinterpret_cast<const char *>(b.data()), b.size(), nullptr, 0, nullptr);
    }

    uint32_t add_interest(uint64_t entry, const char *type = "IOGeneralInterest") {
        wire::Writer w;
        w.u64(entry);
        w.str(type);
        auto f = request(wire::Op::AddInterest, w);
        if (!f || f->code != 0) return 0;
        wire::Reader r(f->body);
        return r.u32();
    }

    std::deque<Frame> events;

private:
    bool read_exact(uint8_t *out, size_t n, std::chrono::steady_clock::time_point deadline, int *fd) {
        size_t done = 0;
        while (done < n) {
            auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return false;
            pollfd p{fd_, POLLIN, 0};
            if (poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
            iovec iov{out + done, n - done};
            alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int) * 4)];
            msghdr msg{};
            msg.msg_iov = &iov;
            msg.msg_iovlen = 1;
            msg.msg_control = control;
            msg.msg_controllen = sizeof control;
            ssize_t got = recvmsg(fd_, &msg, MSG_CMSG_CLOEXEC);
            if (got <= 0) return false;
            for (cmsghdr *cm = CMSG_FIRSTHDR(&msg); cm; cm = CMSG_NXTHDR(&msg, cm)) {
                if (cm->cmsg_level == SOL_SOCKET && cm->cmsg_type == SCM_RIGHTS) {
                    int received;
                    std::memcpy(&received, CMSG_DATA(cm), sizeof(int));
                    if (*fd >= 0) close(*fd);
                    *fd = received;
                }
            }
            done += static_cast<size_t>(got);
        }
        return true;
    }

    int fd_ = -1;
    bool connected_ = false;
    uint32_t next_seq_ = 1;
};

// A control command sent over the protocol (no child process).
inline std::optional<Frame> control(RawClient &c, const std::vector<std::string> &words) {
    wire::Writer w;
    w.u32(static_cast<uint32_t>(words.size()));
    for (auto &s : words) w.str(s);
    return c.request(wire::Op::Control, w);
}

}  // namespace talvex::test
