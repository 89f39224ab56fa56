// The transport between the platform layer (host/) and the simulator
// (talvexsim): framed messages over one Unix-domain stream socket per process.
//
// Every multi-byte field is little-endian and is written and read byte by byte
// through Writer and Reader; no struct is ever cast onto the bytes.
//
// Frame:   u32 length of what follows (at most kMaxFrame), then the message.
// Request (client to simulator):
//          u16 op, u16 flags (0), u32 seq, body
// Reply (simulator to client, one per request, same seq):
//          u16 op | kReplyBit, u16 flags (0), u32 seq, i32 code, body
// Event (simulator to client, unsolicited; seq 0):
//          u16 Op::Event, u16 flags (0), u32 seq = 0, body
//
// Strings (str) are u32 byte count + UTF-8 bytes, no NUL. Blobs (blob) are
// u32 byte count + bytes. A property list travels as a blob holding its
// IOCFSerialize form (the registry's XML dialect, NUL included).
//
// Ops and bodies ("->" introduces the reply body after its code):
//   Hello        u32 protocol version, u32 pid           -> u32 protocol version
//   Match        blob matching dictionary                -> u64 registry generation, u32 n, n x u64 entry ID
//   Generation   (none)                                  -> u64 registry generation
//   EntryInfo    u64 entry ID                            -> str name, str class
//   GetProperty  u64 entry ID, str key                   -> blob property (code kIOReturnNotFound when absent)
//   GetProperties u64 entry ID                           -> blob dictionary of every property
//   SetProperty  u64 entry ID, str key, blob value       -> (none)
//   Open         u64 entry ID, u32 type                  -> u32 connection ID
//   Close        u32 connection ID                       -> (none)
//   Call         u32 connection ID, u32 selector,
//                u32 n, n x u64 scalar inputs,
//                blob input structure,
//                u32 scalar output capacity,
//                u64 structure output capacity,
//                u8 flags (bit 0: caller passed an output structure,
//                          bit 1: caller passed an input structure)
//                                                        -> u32 n, n x u64 scalar outputs, blob output structure
//   Map          u32 connection ID, u32 memory type,
//                u32 options                             -> u64 size; the memory's file descriptor travels with
//                                                           the reply as SCM_RIGHTS ancillary data
//   AddInterest  u64 entry ID, str interest type         -> u32 notification ID
//   RemoveInterest u32 notification ID                   -> (none)
//   Control      u32 argc, argc x str (a control command's words, e.g. "trace" "--clear")
//                                                        -> str standard output text, str error text
//                                                           (code 0 success, 1 failure)
// Event body (interest message):
//   u32 notification ID, u64 entry ID, u32 message type,
//   u8 argument kind (0 null, 1 value, 2 data), then for 1: u64 value, for 2: blob bytes
#pragma once

#include <sys/socket.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "little_endian.h"

namespace talvex::wire {

inline constexpr uint32_t kProtocolVersion = 1;
inline constexpr uint32_t kMaxFrame = 16u << 20;   // 16 MiB
inline constexpr uint16_t kReplyBit = 0x8000;

enum class Op : uint16_t {
    Hello = 1,
    Match = 2,
    Generation = 3,
    EntryInfo = 4,
    GetProperty = 5,
    GetProperties = 6,
    SetProperty = 7,
    Open = 8,
    Close = 9,
    Call = 10,
    Map = 11,
    AddInterest = 12,
    RemoveInterest = 13,
    Control = 14,
    Event = 0x4001,
};

enum class ArgKind : uint8_t { None = 0, Value = 1, Data = 2 };

// Appends little-endian fields to a growing byte vector. The vector is room:
// its elements past size() are not yet written, so a field is one copy and
// the vector grows (out of line) only when the room runs out.
class Writer {
public:
    Writer() = default;
    // Starts empty in the storage of `reuse` (a buffer kept from message to
    // message keeps its capacity; take() gives it back).
    explicit Writer(std::vector<uint8_t> &&reuse) : buf_(std::move(reuse)) {}
    void u8(uint8_t v) { append(&v, 1); }
    void u16(uint16_t v) {
        uint8_t b[2];
        store_le16(b, v);
        append(b, sizeof b);
    }
    void u32(uint32_t v) {
        uint8_t b[4];
        store_le32(b, v);
        append(b, sizeof b);
    }
    void u64(uint64_t v) {
        uint8_t b[8];
        store_le64(b, v);
        append(b, sizeof b);
    }
    void i32(int32_t v) { u32(static_cast<uint32_t>(v)); }
    void bytes(std::span<const uint8_t> b) { append(b.data(), b.size()); }
    void str(std::string_view s);
    void blob(std::span<const uint8_t> b);
    // Overwrites the u32 written at byte `at` (a length or a number known
    // only once the rest is written).
    void patch_u32(size_t at, uint32_t v) { store_le32(data_mut(), at, v); }
    std::span<const uint8_t> data() const { return {buf_.data(), size_}; }
    std::vector<uint8_t> take() {
        buf_.resize(size_);
        size_ = 0;
        return std::move(buf_);
    }
    size_t size() const { return size_; }

private:
    std::span<uint8_t> data_mut() { return {buf_.data(), size_}; }
    void append(const uint8_t *p, size_t n) {
        if (buf_.size() - size_ < n) grow(n);
        if (n) std::memcpy(buf_.data() + size_, p, n);
        size_ += n;
    }
    // Makes room for `n` more bytes.
    void grow(size_t n);

    std::vector<uint8_t> buf_;
    size_t size_ = 0;
};

// Reads little-endian fields from a byte span. Every read is bounds-checked:
// once a read runs past the end, ok() is false and every later read yields
// zero / empty, so a decoder can read a whole body and check ok() once.
class Reader {
public:
    explicit Reader(std::span<const uint8_t> b) : buf_(b) {}
    uint8_t u8();
    uint16_t u16();
    uint32_t u32();
    uint64_t u64();
    int32_t i32() { return static_cast<int32_t>(u32()); }
    std::span<const uint8_t> bytes(size_t n);
    std::string str();
    std::span<const uint8_t> blob();
    bool ok() const { return ok_; }
    bool at_end() const { return ok_ && pos_ == buf_.size(); }
    size_t remaining() const { return ok_ ? buf_.size() - pos_ : 0; }

private:
    std::span<const uint8_t> buf_;
    size_t pos_ = 0;
    bool ok_ = true;
};

// Where a frame's sequence number and a reply's code sit (length prefix
// included), and how many bytes come before a request's or a reply's body.
inline constexpr size_t kSeqAt = 8, kCodeAt = 12;
inline constexpr size_t kRequestHead = 12, kReplyHead = 16;
// Starts a frame in an empty writer, for its body to be written in place:
// room for the length (end_frame() fills it in), the op, flags, `seq`, and
// for a reply (an op with kReplyBit) its code.
void begin_frame(Writer &w, uint16_t op, uint32_t seq, int32_t code = 0);
// Sets the length of the frame begun in `w` to what follows it.
void end_frame(Writer &w);

// Builds a request frame (length prefix included).
std::vector<uint8_t> make_request(Op op, uint32_t seq, std::span<const uint8_t> body);
// Builds a reply frame (length prefix included).
std::vector<uint8_t> make_reply(Op op, uint32_t seq, int32_t code, std::span<const uint8_t> body);
// Builds an event frame (length prefix included).
std::vector<uint8_t> make_event(std::span<const uint8_t> body);

// Where the simulator's socket is: TALVEX_SIM_SOCKET when set and not empty,
// else "$XDG_RUNTIME_DIR/talvexsim/sim.sock" when XDG_RUNTIME_DIR is set and
// not empty, else "/tmp/talvexsim-$UID/sim.sock".
std::string default_socket_path();

// Room for the ancillary data of one descriptor.
struct DescriptorControl {
    alignas(cmsghdr) char bytes[CMSG_SPACE(sizeof(int))];
};
// Makes `msg` carry `fd` as SCM_RIGHTS ancillary data held in `control`
// (how the simulator hands a mapping's descriptor over with a reply).
void attach_descriptor(msghdr &msg, DescriptorControl &control, int fd);

// Lower-case hex of bytes ("" for none), as the trace prints structures.
std::string to_hex(std::span<const uint8_t> bytes);
// Writes the same two digits a byte at `out`; returns the end.
char *put_hex(char *out, std::span<const uint8_t> bytes);
// Parses hex text (even length, upper or lower case, no separators).
std::optional<std::vector<uint8_t>> from_hex(std::string_view text);

}  // namespace talvex::wire
