#include "sim_host.h"

#include <IOKit/IOKitLib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "clock.h"
#include "socket_io.h"
#include "wire.h"

namespace talvex::fuzz {

namespace {

constexpr sim::ClientId kClient = 1;

[[noreturn]] void die(const char *what) { fail("%s: %s", what, std::strerror(errno)); }

}  // namespace

struct SimHost::State : sim::Outbox {
    std::mutex mu;
    std::unique_ptr<sim::Simulation> sim;
    int listen_fd = -1;
    int client_fd = -1;                  // the connection being served (mu held to use it)
    std::atomic<uint64_t> served{0};     // requests answered so far
    uint64_t step_ns = 0;                // simulated time added before each request

    void send(sim::ClientId, std::vector<uint8_t> frame, int fd) override {
        // A write that fails means the host went away; the serving loop sees
        // that on its next read.
        if (client_fd >= 0) wire::send_with_descriptor_before(client_fd, frame, fd, std::chrono::steady_clock::time_point::max());
    }

    void serve() {
        std::vector<uint8_t> message;
        for (;;) {
            int c = accept4(listen_fd, nullptr, nullptr, SOCK_CLOEXEC);
            if (c < 0) {
                if (errno == EINTR || errno == ECONNABORTED) continue;
                die("accept");
            }
            {
                std::lock_guard lk(mu);
                client_fd = c;
            }
            for (;;) {
                // The host is served as long as it stays connected, however long it idles.
                if (wire::read_frame_before(c, std::chrono::steady_clock::time_point::max(), wire::kMaxFrame,
                                            message) != wire::FrameRead::Ok)
                    break;
                std::lock_guard lk(mu);
                served.fetch_add(1);   // before the reply leaves, so check_link sees it
                if (step_ns) {
                    static_cast<sim::StepClock &>(sim->clock()).advance(step_ns);
                    sim->run_timers();
                }
                sim->handle(kClient, message);
                sim->run_timers();
            }
            std::lock_guard lk(mu);
            client_fd = -1;
            sim->client_gone(kClient);
            close(c);
        }
    }
};

SimHost &SimHost::instance() {
    static SimHost *host = new SimHost;   // never destroyed: its thread serves until the process ends
    return *host;
}

SimHost::SimHost() : s_(new State) {
    s_->sim = std::make_unique<sim::Simulation>(*s_, std::make_unique<sim::StepClock>());
    std::string path;
    s_->listen_fd = listen_private(path);
    std::thread([st = s_] { st->serve(); }).detach();
    // The socket file and its directory are not needed once the host has
    // connected; removing them now leaves nothing behind in /tmp.
    check_link();
    unlink(path.c_str());
    rmdir(path.substr(0, path.rfind('/')).c_str());
}

void SimHost::reset(const std::function<void(sim::Simulation &)> &setup) {
    std::lock_guard lk(s_->mu);
    if (s_->client_fd >= 0) s_->sim->client_gone(kClient);
    s_->sim.reset();
    s_->sim = std::make_unique<sim::Simulation>(*s_, std::make_unique<sim::StepClock>());
    if (setup) setup(*s_->sim);
}

void SimHost::set_step(uint64_t ns) {
    std::lock_guard lk(s_->mu);
    s_->step_ns = ns;
}

void SimHost::with(const std::function<void(sim::Simulation &)> &f) {
    std::lock_guard lk(s_->mu);
    f(*s_->sim);
}

void SimHost::check_link() {
    uint64_t before = s_->served.load();
    io_iterator_t it = 0;
    kern_return_t kr = IOServiceGetMatchingServices(kIOMainPortDefault, IOServiceMatching("TalvexFuzzNothing"), &it);
    if (it) IOObjectRelease(it);
    if (kr != KERN_SUCCESS || s_->served.load() == before)
        fail("the host lost its link to the in-process simulator (%#x)", static_cast<unsigned>(kr));
}

void SimHost::check_released(const char *class_name, const char *who) {
    io_service_t service = IOServiceGetMatchingService(kIOMainPortDefault, IOServiceMatching(class_name));
    if (!service) return;
    uint32_t count = IOObjectGetUserRetainCount(service);
    IOObjectRelease(service);
    if (count != 1) fail("%s left %u handle(s) on %s", who, count - 1, class_name);
}

int listen_private(std::string &path) {
    char dir[] = "/tmp/talvex-fuzz-XXXXXX";
    if (!mkdtemp(dir)) die("mkdtemp");
    path = std::string(dir) + "/sim.sock";
    int fd = wire::listen_at(path, 4).release();
    if (fd < 0) die("listen");
    setenv("TALVEX_SIM_SOCKET", path.c_str(), 1);
    return fd;
}

}  // namespace talvex::fuzz
