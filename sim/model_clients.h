// The clients the firmware holds per device (see model_clients.cpp).
#pragma once

#include <IOKit/IOReturn.h>

#include "model_properties.h"
#include "user_client.h"

namespace talvex::sim::diag {

// Clients per device (30).
class ClientList {
public:
    explicit ClientList(DeviceProperties &props) : props_(props) {}
    IOReturn query(const CallArgs &args, CallReply &reply);

private:
    DeviceProperties &props_;
};

}  // namespace talvex::sim::diag
