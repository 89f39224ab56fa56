// The clients the firmware holds per device (30): the processes on the
// application processor that asked for the device's data, each with its
// polling interval (us), report interval (us), threshold (device units) and
// time limit (ms).
//
// Request (5 bytes): device, index (32-bit, unaligned). Index 0xffffffff asks
// for the summary: the number of client slots, the device's name and the
// settings in force (polling: the device's sample interval; report and
// threshold: the smallest any client asked for; time limit: the longest).
// A slot whose client has gone shows an empty name. An index past the slots
// is kIOReturnBadArgument, a device above 6 kIOReturnNoDevice.
// Reply (89 bytes): slot count, name (69 bytes, NUL-terminated), polling,
// report, threshold, time limit.
#include <algorithm>

#include "model_clients.h"
#include "model_support.h"

namespace talvex::sim::diag {

namespace {

using Layout = TalvexClientListLayout;

struct Client {
    const char *name;   // empty: a slot whose client has gone
    int32_t polling_us, report_us, threshold, time_limit_ms;
};

const char *const kDeviceNames[kTalvexDeviceCount] = {"gyro",     "accel",  "compass", "talvex",
                                                       "pressure", "corvel", "prox"};

const std::vector<Client> &clients_of(uint32_t device) {
    static const std::vector<Client> kClients[kTalvexDeviceCount] = {
        // gyro
        {{"motiond.attitude", 10'000, 20'000, 0, 0},
         {"com.zantra.sensorhub.calibration-daemon", 20'000, 1'000'000, 5, 60'000}},
        // accel
        {{"motiond.activity", 20'000, 1'000'000, 0, 0},
         {"orientationd", 40'000, 200'000, 35, 0},
         {"", 0, 0, 0, 0},
         {"stepcounter", 20'000, 5'000'000, 0, 0},
         {"wake-gesture", 10'000, 100'000, 120, 2'000}},
        // compass
        {{"compass.heading", 50'000, 100'000, 2, 0}},
        // talvex
        {{"timesync.hub", 1'000'000, 1'000'000, 0, 0}},
        // pressure
        {{"altimeter", 100'000, 1'000'000, 3, 0}, {"fitness.floors", 1'000'000, 10'000'000, 12, 0}},
        // corvel
        {},
        // prox
        {{"proximity.call", 50'000, 50'000, 40, 30'000}},
    };
    return kClients[device];
}

void put_record(std::vector<uint8_t> &out, uint32_t count, const std::string &name, int32_t polling,
                int32_t report, int32_t threshold, int32_t time_limit) {
    out.assign(Layout::kReplySize, 0);
    wire::store_le32(out, 0, count);
    put_text(out, 4, Layout::kNameSize, name);
    wire::store_le32(out, 73, static_cast<uint32_t>(polling));
    wire::store_le32(out, 77, static_cast<uint32_t>(report));
    wire::store_le32(out, 81, static_cast<uint32_t>(threshold));
    wire::store_le32(out, 85, static_cast<uint32_t>(time_limit));
}

}  // namespace

IOReturn ClientList::query(const CallArgs &args, CallReply &reply) {
    if (args.input.size() != Layout::kRequestSize) return kIOReturnBadArgument;
    uint32_t device = args.input[0];
    uint32_t index = wire::load_le32(args.input, 1);
    if (!props_.exists(device)) return kIOReturnNoDevice;
    const auto &clients = clients_of(device);
    auto count = static_cast<uint32_t>(clients.size());
    if (index == Layout::kSummary) {
        uint64_t millihertz = props_.sample_millihertz(device);
        auto polling = static_cast<int32_t>(millihertz ? 1'000'000'000 / millihertz : 0);
        int32_t report = 0, threshold = 0, time_limit = 0;
        bool first = true;
        for (const Client &c : clients) {
            if (!*c.name) continue;
            report = first ? c.report_us : std::min(report, c.report_us);
            threshold = first ? c.threshold : std::min(threshold, c.threshold);
            time_limit = std::max(time_limit, c.time_limit_ms);
            first = false;
        }
        put_record(reply.output, count, kDeviceNames[device], polling, report, threshold, time_limit);
        return kIOReturnSuccess;
    }
    if (index >= count) return kIOReturnBadArgument;
    const Client &c = clients[index];
    put_record(reply.output, count, c.name, c.polling_us, c.report_us, c.threshold, c.time_limit_ms);
    return kIOReturnSuccess;
}

}  // namespace talvex::sim::diag
