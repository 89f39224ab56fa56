// A listener for the trust tests, run as another user: listens at PATH,
// prints "ready", accepts and reads whatever comes without ever answering,
// and once its standard input closes prints what it got, "connections: N,
// bytes: M". Gives up after a minute.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <vector>

int main(int argc, char **argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: stranger PATH\n");
        return 2;
    }
    int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un sa{};
    sa.sun_family = AF_UNIX;
    std::strncpy(sa.sun_path, argv[1], sizeof sa.sun_path - 1);
    if (bind(listener, reinterpret_cast<sockaddr *>(&sa), sizeof sa) != 0 || listen(listener, 16) != 0) {
        std::perror("stranger");
        return 1;
    }
    std::printf("ready\n");
    std::fflush(stdout);
    std::vector<pollfd> fds{{0, POLLIN, 0}, {listener, POLLIN, 0}};
    size_t connections = 0, bytes = 0;
    const auto until = std::chrono::steady_clock::now() + std::chrono::minutes(1);
    while (std::chrono::steady_clock::now() < until) {
        if (poll(fds.data(), fds.size(), 1000) <= 0) continue;
        if (fds[0].revents) break;   // standard input closed: time to report
        for (size_t i = 2; i < fds.size(); ++i) {
            if (!fds[i].revents) continue;
            char buf[4096];
            ssize_t n = read(fds[i].fd, buf, sizeof buf);
            if (n > 0) {
                bytes += static_cast<size_t>(n);
            } else {
                close(fds[i].fd);
                fds[i].fd = -1;   // poll skips it from now on
            }
        }
        if (fds[1].revents & POLLIN) {
            int c = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
            if (c >= 0) {
                ++connections;
                fds.push_back({c, POLLIN, 0});
            }
        }
    }
    std::printf("connections: %zu, bytes: %zu\n", connections, bytes);
    return 0;
}
