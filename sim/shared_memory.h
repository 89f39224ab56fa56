// Memory shared with clients: an anonymous memory file the simulator maps
// read-write and hands to clients (as a file descriptor) to map read-only.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

namespace talvex::sim {

class SharedRegion {
public:
    // A zero-filled region of `size` bytes (at least 1); null with a reason
    // in `error` when the system refuses.
    static std::unique_ptr<SharedRegion> create(size_t size, std::string *error = nullptr);
    ~SharedRegion();
    SharedRegion(const SharedRegion &) = delete;
    SharedRegion &operator=(const SharedRegion &) = delete;

    std::span<uint8_t> bytes() { return {data_, size_}; }
    std::span<const uint8_t> bytes() const { return {data_, size_}; }
    size_t size() const { return size_; }
    // A read-only descriptor of the region, the one clients receive: a
    // mapping made through it cannot be writable. Borrowed; valid for the
    // region's lifetime.
    int client_fd() const { return ro_fd_; }

private:
    SharedRegion(int ro_fd, uint8_t *data, size_t size) : ro_fd_(ro_fd), data_(data), size_(size) {}
    int ro_fd_;
    uint8_t *data_;
    size_t size_;
};

}  // namespace talvex::sim
