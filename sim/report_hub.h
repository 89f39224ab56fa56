// The report hub (IOReportHub): the service through which clients subscribe
// to report channels. Each user client owns a sample buffer that the client
// maps read-only (memory type kHubBufferMemoryType); the hub's methods are
// not served yet and answer kIOReturnUnsupported.
#pragma once

#include <IOKit/IOReturn.h>

#include <cstddef>
#include <cstdint>
#include <memory>

#include "registry.h"
#include "user_client.h"

namespace talvex::sim {

class Simulation;

inline constexpr uint32_t kHubBufferMemoryType = 0;
inline constexpr size_t kHubBufferSize = 64u << 10;

class ReportHub final : public ServiceModel {
public:
    ReportHub(Simulation &sim, Service &service) : sim_(sim), service_(service) {}
    // Connection type 0 only; other types fail with kIOReturnBadArgument.
    IOReturn open(uint32_t type, std::unique_ptr<UserClient> &out) override;

    Simulation &simulation() { return sim_; }
    Service &service() { return service_; }

private:
    Simulation &sim_;
    Service &service_;
};

}  // namespace talvex::sim
