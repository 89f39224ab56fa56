#include "control_client.h"

#include <chrono>
#include <cstdio>

#include "cli.h"
#include "safe_connect.h"
#include "wire.h"

namespace talvex::sim {

int forward_control(const std::string &socket_path, const std::vector<std::string> &words) {
    wire::Outcome there = wire::reach_simulator(socket_path);
    if (there.reach != wire::Reach::Answered) return complain(wire::explain(there, socket_path));
    const int fd = there.fd.get();
    constexpr uint32_t kSeq = 2;   // after the greeting's
    wire::Writer body;
    body.u32(static_cast<uint32_t>(words.size()));
    for (auto &w : words) body.str(w);
    auto request = wire::make_request(wire::Op::Control, kSeq, body.data());
    auto deadline = std::chrono::steady_clock::now() + wire::kReplyTimeout;
    int result = -1;
    if (wire::send_before(fd, request, deadline)) {
        // Skip anything that is not our reply (events cannot come before
        // we register for any, but a frame is a frame).
        while (auto frame = wire::read_frame_before(fd, deadline, wire::kMaxFrame)) {
            wire::Reader r(*frame);
            uint16_t op = r.u16();
            r.u16();
            uint32_t seq = r.u32();
            if (op != (static_cast<uint16_t>(wire::Op::Control) | wire::kReplyBit) || seq != kSeq) continue;
            int32_t code = r.i32();
            std::string out = r.str(), err = r.str();
            if (!r.ok()) {
                std::fprintf(stderr, "talvexsim: the simulator refused the command (code %#x)\n",
                             static_cast<unsigned>(code));
                result = 1;
                break;
            }
            std::fwrite(out.data(), 1, out.size(), stdout);
            std::fflush(stdout);
            std::fwrite(err.data(), 1, err.size(), stderr);
            result = code == 0 ? 0 : code == 2 ? 2 : 1;   // 2: a scenario file that cannot be run
            break;
        }
    }
    if (result >= 0) return result;
    if (std::chrono::steady_clock::now() >= deadline)
        return complain("no answer from the simulator at " + socket_path + ": timed out after " +
                           std::to_string(wire::kReplyTimeout.count() / 1000) + " s");
    return complain("no answer from the simulator at " + socket_path + ": it closed the connection");
}

int report_status(const std::string &socket_path) {
    wire::Outcome there = wire::reach_simulator(socket_path);
    if (there.reach != wire::Reach::Answered) return complain(wire::explain(there, socket_path));
    std::printf("%s\n", wire::explain(there, socket_path).c_str());
    return 0;
}

}  // namespace talvex::sim
