// A listener for the trust tests, run as another user: listens at PATH,
// prints "ready", accepts and reads whatever comes without ever answering,
// and once its standard input closes prints what it got, "connections: N,
// bytes: M". Gives up after a minute.
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

#include "socket_io.h"

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: stranger PATH\n");
        return 2;
    }
    const int listener = talvex::wire::listen_at(argv[1], 16, SOCK_NONBLOCK).release();
    if (listener < 0) {
        std::perror("stranger");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    std::vector<pollfd> fds{{0, POLLIN, 0}, {listener, POLLIN, 0}};
    size_t connections = 0, bytes = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    for (bool ending = false; !ending;) {
        ending = std::chrono::steady_clock::now() >= until;
        if (poll(fds.data(), fds.size(), 1000) < 0) continue;
        // Once standard input closes, take what is still queued, then report.
        ending = ending || fds[0].revents;
        for (int c; (c = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK)) >= 0;) {
            ++connections;
            fds.push_back({c, POLLIN, 0});
        }
        for (size_t i = 2; i < fds.size(); ++i) {
            char buf[4096];
            ssize_t n = -1;
            while (fds[i].fd >= 0 && (n = read(fds[i].fd, buf, sizeof buf)) != 0) {
                if (n < 0) break;   // nothing more for now
                bytes += static_cast<size_t>(n);
            }
            if (fds[i].fd >= 0 && n == 0) {
                close(fds[i].fd);
                fds[i].fd = -1;   // poll skips it from now on
            }
        }
    }
    std::printf("connections: %zu, bytes: %zu\n", connections, bytes);
    return 0;
}
