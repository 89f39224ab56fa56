// Unix stream sockets and framed I/O with deadlines: the one place that
// fills a socket address, opens a listening or connected socket at a path,
// and sends or reads a whole frame within a time limit. For the platform
// layer, the simulator, tests, benchmarks and fuzz targets alike.
#pragma once

#include <sys/socket.h>
#include <sys/un.h>

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>
#include <vector>

#include "owned_fd.h"

namespace talvex::wire {

// The most bytes a socket path may have (its NUL needs the last place).
inline constexpr size_t kMaxSocketPath = sizeof(sockaddr_un::sun_path) - 1;

// The address of a Unix socket at `path`; nothing when the path is empty or
// longer than kMaxSocketPath.
std::optional<sockaddr_un> socket_address(std::string_view path);

// A stream socket bound to `path` and listening; invalid when that fails
// (errno says why). `flags` are or-ed into the socket's type (SOCK_CLOEXEC
// always is), e.g. SOCK_NONBLOCK.
OwnedFd listen_at(std::string_view path, int backlog, int flags = 0);
// A stream socket connected to `path`, without connect_checked's checks (for
// peers of our own making); invalid when that fails.
OwnedFd connect_to(std::string_view path, int flags = 0);

// One read into `into`, without waiting (MSG_DONTWAIT) unless `wait`: what
// it returns, with the descriptors that came along appended to `descriptors`
// (up to 8 a call; they close on exec). Null `descriptors` says none is
// wanted: the read is then a plain recv, and the kernel closes any that came.
ssize_t receive_some(int fd, std::span<uint8_t> into, std::vector<int> *descriptors, bool wait = false);

// Sends all of `bytes` before the deadline.
bool send_before(int fd, std::span<const uint8_t> bytes, std::chrono::steady_clock::time_point deadline);
// The same, with `descriptor` passed along with the first byte (none when
// it is negative or there are no bytes).
bool send_with_descriptor_before(int fd, std::span<const uint8_t> bytes, int descriptor,
                                 std::chrono::steady_clock::time_point deadline);

// How reading a frame ended.
enum class FrameRead { Ok, TimedOut, Closed, BadLength };
// Reads one frame (length prefix and message) before the deadline into
// `message`, without its length prefix; a length below 8 or above
// `max_length` is BadLength. When `descriptor` is given, a descriptor that
// came with the bytes is kept there (the last, when several came; the
// others are closed); without it any is closed.
FrameRead read_frame_before(int fd, std::chrono::steady_clock::time_point deadline, uint32_t max_length,
                            std::vector<uint8_t> &message, OwnedFd *descriptor = nullptr);
// The same, giving the message, or nothing however the read failed.
std::optional<std::vector<uint8_t>> read_frame_before(int fd, std::chrono::steady_clock::time_point deadline,
                                                      uint32_t max_length);

}  // namespace talvex::wire
