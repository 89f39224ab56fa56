#include "report_hub.h"

namespace talvex::sim {

namespace {

class HubClient final : public UserClient {
public:
    bool init() { return add_region(kHubBufferMemoryType, kHubBufferSize) != nullptr; }
    IOReturn call(const CallArgs &, CallReply &) override { return kIOReturnUnsupported; }
};

}  // namespace

IOReturn ReportHub::open(uint32_t type, std::unique_ptr<UserClient> &out) {
    if (type != 0) return kIOReturnBadArgument;
    auto client = std::make_unique<HubClient>();
    if (!client->init()) return kIOReturnNoMemory;
    out = std::move(client);
    return kIOReturnSuccess;
}

}  // namespace talvex::sim
