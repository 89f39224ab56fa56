#include "shared_memory.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace talvex::sim {

std::unique_ptr<SharedRegion> SharedRegion::create(size_t size, std::string *error) {
    auto fail = [&](const char *what) -> std::unique_ptr<SharedRegion> {
        if (error) *error = std::string(what) + ": " + std::strerror(errno);
        return nullptr;
    };
    if (size == 0) {
        errno = EINVAL;
        return fail("shared region");
    }
    int fd = memfd_create("talvexsim-region", MFD_CLOEXEC | MFD_ALLOW_SEALING);
    if (fd < 0) return fail("memfd_create");
    if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
        int saved = errno;
        close(fd);
        errno = saved;
        return fail("ftruncate");
    }
    // The size is fixed for the region's life: a client that maps it can
    // never find it shrunk under its mapping.
    fcntl(fd, F_ADD_SEALS, F_SEAL_SHRINK | F_SEAL_GROW | F_SEAL_SEAL);
    void *p = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (p == MAP_FAILED) {
        int saved = errno;
        close(fd);
        errno = saved;
        return fail("mmap");
    }
    // A second open file description, read-only, for clients.
    std::string self = "/proc/self/fd/" + std::to_string(fd);
    int ro = open(self.c_str(), O_RDONLY | O_CLOEXEC);
    if (ro < 0) {
        int saved = errno;
        munmap(p, size);
        close(fd);
        errno = saved;
        return fail("reopen read-only");
    }
    // The mapping keeps the memory; the read-only descriptor is all a region
    // holds on to, so each costs one descriptor.
    close(fd);
    return std::unique_ptr<SharedRegion>(new SharedRegion(ro, static_cast<uint8_t *>(p), size));
}

SharedRegion::~SharedRegion() {
    munmap(data_, size_);
    close(ro_fd_);
}

}  // namespace talvex::sim
