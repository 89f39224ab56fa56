// The simulator's socket server: one thread, one epoll loop serving any
// number of clients on a Unix stream socket, and the simulation's timers.
// A wait costs the same whatever the number of clients: each socket is
// registered once, and its registration changes only when what the server
// waits for on it does (input, room for output).
//
// Every client has its own input and output buffers, and the server's reads
// and writes on its socket never wait (MSG_DONTWAIT; only a lone client is
// waited for in a read, see lone_reader()), so a slow, stalled or dying
// client never holds up the others. A client is
// disconnected when it sends a frame that cannot be one (shorter than a
// header or longer than kMaxFrame), when its socket fails, or when it lets
// more than kMaxPendingOutput bytes of replies and events pile up unread. A
// client with more than kPauseOutput bytes unread is not read from until it
// catches up.
//
// Clients are also held to the simulation's budget (budget.h): its socket and
// the descriptors on their way to it count as descriptors, its buffered
// input and output as buffered bytes. A large reply that does not fit is
// refused (the simulation answers kIOReturnNoResources instead); a frame
// whose announced length does not fit, or an event that does not fit a
// client that is already behind, disconnects the client. While the shared
// pool of buffered bytes runs low, a client holding more than its floor with
// output unread is not read from. Beyond max_clients, a new connection is
// accepted, answered with one refusing greeting reply (seq 0, code
// kIOReturnNoResources) and closed.
#pragma once

#include <sys/epoll.h>
#include <sys/types.h>

#include <chrono>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "simulation.h"

namespace talvex::sim {

class Server final : public Outbox {
public:
    static constexpr size_t kPauseOutput = 1u << 20;
    // A paused client can still be owed one largest reply; beyond that, what
    // piles up is events it does not read.
    static constexpr size_t kMaxPendingOutput = 2 * static_cast<size_t>(wire::kMaxFrame) + kPauseOutput;

    explicit Server(std::unique_ptr<Clock> clock = nullptr,
                    const BudgetLimits &limits = Simulation::default_limits());
    // Disconnects every client, closes the socket and removes its file.
    ~Server() override;
    Server(const Server &) = delete;
    Server &operator=(const Server &) = delete;

    // Prepares the socket's directory (created 0700 when missing; refused
    // when it is not ours or others can enter or write it), then, holding
    // the lock file PATH.lock, replaces a stale socket file, refuses a live
    // one, and listens (socket mode 0600). On failure returns false with a
    // one-line message.
    bool listen(const std::string &path, std::string &error);
    // Makes SIGINT and SIGTERM stop run(); ignores SIGPIPE.
    void stop_on_signals();
    // Serves until stopped.
    void run();
    // Stops run() at its next turn (safe from a signal handler through the
    // wake pipe, or directly from loop callbacks such as timers).
    void request_stop();

    Simulation &simulation() { return sim_; }
    size_t client_count() const { return clients_.size(); }

    void send(ClientId client, std::vector<uint8_t> frame, int fd = -1) override;
    Shortfall reply_room(ClientId client, size_t bytes, bool descriptor) override;

private:
    struct Chunk {
        std::vector<uint8_t> bytes;
        size_t sent = 0;
        int fd = -1;   // owned; travels with the chunk's first byte
    };
    struct Client {
        ClientId id;
        int fd;
        std::vector<uint8_t> in;
        size_t in_need = 0;   // input held, or announced by the frame under way if more
        std::deque<Chunk> out;
        size_t out_bytes = 0;
        Budget::Charge descriptors;   // the socket and descriptors waiting to go out
        Budget::Charge buffers;       // in_need + out_bytes
        bool eof = false;    // the peer will send nothing more
        bool dead = false;   // to be disconnected
        uint32_t watched = 0;    // the events registered for the socket
        uint32_t revents = 0;    // the events of the current turn
    };

    // Waits for the clients' sockets, the listening socket and the wake pipe
    // in epoll_wait and serves what is ready; false when the loop must end.
    bool serve_ready(std::vector<epoll_event> &ready, std::vector<Client *> &turn);
    // With one client and nothing else for the loop to do, the client is
    // waited for in a blocking read of its socket: a round trip then costs
    // the simulator a read and a send, not an epoll_wait as well. A new
    // connection or a stop signal ends the wait (SIGIO is signalled for each
    // connection). The client, or null when the loop must wait in epoll.
    Client *lone_reader();
    // The lone client's wait and what it brought; false when a signal ended
    // it before anything came.
    bool read_alone(Client &c);
    void take_input(Client &c, size_t n);
    void accept_clients();
    void refuse(int fd);
    bool paused(const Client &c) const;
    void read_client(Client &c);
    void process_input(Client &c);
    void charge_input(Client &c);
    void flush(Client &c);
    void disconnect(Client &c, const std::string &why);
    void mark_dead(Client &c) {
        c.dead = true;
        any_dead_ = true;
    }
    // Closes and forgets the clients marked dead (when there are any).
    void reap();
    int wait_timeout_ms() const;
    // Registers `events` for the client's socket when they differ from what
    // is registered; false (with a message) when the kernel refuses.
    bool watch(Client &c, uint32_t events);
    void watch_listener(bool accepting);
    // Whether accepting is paused for want of descriptors (accept_paused_until_).
    bool accepting_paused() const;

    Simulation sim_;
    int listen_fd_ = -1;
    int wake_[2] = {-1, -1};
    int epoll_fd_ = -1;
    bool listener_watched_ = false;
    bool lone_waits_ = false;   // connections signal SIGIO (lone_reader())
    bool connections_left_ = false;   // accept_clients() stopped before the queue was empty
    std::string path_;
    dev_t sock_dev_ = 0;
    ino_t sock_ino_ = 0;
    bool stop_ = false;
    std::map<ClientId, std::unique_ptr<Client>> clients_;
    ClientId next_client_ = 1;
    std::chrono::steady_clock::time_point accept_paused_until_{};
    bool refusing_ = false;   // refused the last connection for want of room
    bool any_dead_ = false;   // some client is marked dead
    std::vector<uint8_t> scratch_;   // read buffer
};

// Checks the directory that holds the socket at `path`: it must be a
// directory of ours that others cannot enter or write. Creates it (mode
// 0700) when it does not exist. On failure returns false with a one-line
// message that names the path and the ways out.
bool prepare_socket_dir(const std::string &path, std::string &error);

}  // namespace talvex::sim
