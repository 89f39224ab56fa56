// A file descriptor with one owner: closed when the owner goes away.
#pragma once

#include <unistd.h>

#include <utility>

namespace talvex::wire {

class OwnedFd {
public:
    OwnedFd() = default;
    explicit OwnedFd(int fd) : fd_(fd) {}
    ~OwnedFd() { reset(); }
    OwnedFd(OwnedFd &&other) noexcept : fd_(other.release()) {}
    OwnedFd &operator=(OwnedFd &&other) noexcept {
        if (this != &other) reset(other.release());
        return *this;
    }
    OwnedFd(const OwnedFd &) = delete;
    OwnedFd &operator=(const OwnedFd &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    // Gives the descriptor up without closing it.
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        if (fd_ >= 0) close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

}  // namespace talvex::wire
