#include "wire.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace talvex::wire {

void Writer::grow(size_t n) {
    // Doubling, as a vector grows, so that writing a message stays linear.
    buf_.resize(std::max({size_ + n, 2 * buf_.size(), size_t{64}}));
}

void Writer::str(std::string_view s) {
    u32(static_cast<uint32_t>(s.size()));
    append(reinterpret_cast<const uint8_t *>(s.data()), s.size());
}

void Writer::blob(std::span<const uint8_t> b) {
    u32(static_cast<uint32_t>(b.size()));
    bytes(b);
}

std::span<const uint8_t> Reader::bytes(size_t n) {
    if (!ok_ || buf_.size() - pos_ < n) {
        ok_ = false;
        return {};
    }
    auto out = buf_.subspan(pos_, n);
    pos_ += n;
    return out;
}

uint8_t Reader::u8() {
    auto b = bytes(1);
    return b.empty() ? 0 : b[0];
}

uint16_t Reader::u16() {
    auto b = bytes(2);
    return b.empty() ? 0 : load_le16(b.data());
}

uint32_t Reader::u32() {
    auto b = bytes(4);
    return b.empty() ? 0 : load_le32(b.data());
}

uint64_t Reader::u64() {
    auto b = bytes(8);
    return b.empty() ? 0 : load_le64(b.data());
}

std::string Reader::str() {
    uint32_t n = u32();
    auto b = bytes(n);
    return std::string(b.begin(), b.end());
}

std::span<const uint8_t> Reader::blob() {
    uint32_t n = u32();
    return bytes(n);
}

void begin_frame(Writer &w, uint16_t op, uint32_t seq, int32_t code) {
    uint8_t head[kReplyHead];
    store_le32(head, 0);
    store_le16(head + 4, op);
    store_le16(head + 6, 0);
    store_le32(head + kSeqAt, seq);
    store_le32(head + kCodeAt, static_cast<uint32_t>(code));
    w.bytes(std::span(head, (op & kReplyBit) ? kReplyHead : kRequestHead));
}

void end_frame(Writer &w) { w.patch_u32(0, static_cast<uint32_t>(w.size() - 4)); }

namespace {
std::vector<uint8_t> frame(uint16_t op, uint32_t seq, int32_t code, std::span<const uint8_t> body) {
    std::vector<uint8_t> room;
    room.reserve(kReplyHead + body.size());
    Writer w(std::move(room));
    begin_frame(w, op, seq, code);
    w.bytes(body);
    end_frame(w);
    return w.take();
}
}  // namespace

std::vector<uint8_t> make_request(Op op, uint32_t seq, std::span<const uint8_t> body) {
    return frame(static_cast<uint16_t>(op), seq, 0, body);
}

std::vector<uint8_t> make_reply(Op op, uint32_t seq, int32_t code, std::span<const uint8_t> body) {
    return frame(static_cast<uint16_t>(static_cast<uint16_t>(op) | kReplyBit), seq, code, body);
}

std::vector<uint8_t> make_event(std::span<const uint8_t> body) {
    return frame(static_cast<uint16_t>(Op::Event), 0, 0, body);
}

std::string default_socket_path() {
    const char *env = std::getenv("TALVEX_SIM_SOCKET");
    if (env && *env) return env;
    const char *xdg = std::getenv("XDG_RUNTIME_DIR");
    if (xdg && *xdg) return std::string(xdg) + "/talvexsim/sim.sock";
    return "/tmp/talvexsim-" + std::to_string(getuid()) + "/sim.sock";
}

char *put_hex(char *out, std::span<const uint8_t> bytes) {
    static const char digits[] = "0123456789abcdef";
    for (uint8_t b : bytes) {
        *out++ = digits[b >> 4];
        *out++ = digits[b & 15];
    }
    return out;
}

std::string to_hex(std::span<const uint8_t> bytes) {
    std::string out(bytes.size() * 2, '\0');
    put_hex(out.data(), bytes);
    return out;
}

std::optional<std::vector<uint8_t>> from_hex(std::string_view text) {
    if (text.size() % 2) return std::nullopt;
    auto nibble = [](char c) -> int {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    };
    std::vector<uint8_t> out;
    out.reserve(text.size() / 2);
    for (size_t i = 0; i < text.size(); i += 2) {
        int hi = nibble(text[i]), lo = nibble(text[i + 1]);
        if (hi < 0 || lo < 0) return std::nullopt;
        out.push_back(static_cast<uint8_t>(hi << 4 | lo));
    }
    return out;
}

void attach_descriptor(msghdr &msg, DescriptorControl &control, int fd) {
    std::memset(control.bytes, 0, sizeof control.bytes);
    msg.msg_control = control.bytes;
    msg.msg_controllen = sizeof control.bytes;
    cmsghdr *c = CMSG_FIRSTHDR(&msg);
    c->cmsg_level = SOL_SOCKET;
    c->cmsg_type = SCM_RIGHTS;
    c->cmsg_len = CMSG_LEN(sizeof(int));
    std::memcpy(CMSG_DATA(c), &fd, sizeof fd);
}

}  // namespace talvex::wire
