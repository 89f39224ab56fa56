// The coprocessor state: the driver's "talvex-state" property and its names.
#include "talvex_client.h"

const TalvexStateName kTalvexStateNames[] = {
    {"off", kTalvexStateOff},
    {"stopped", kTalvexStateStopped},
    {"booting", kTalvexStateBooting},
    {"booted", kTalvexStateBooted},
    {"notresponding", kTalvexStateNotResponding},
    {"panic", kTalvexStatePanic},
    {nullptr, 0},
};

const char *TalvexStateNameFor(uint64_t value) {
    for (const TalvexStateName *row = kTalvexStateNames; row->name; ++row)
        if (row->value == value) return row->name;
    return "unknown";
}

void TalvexReadState(TalvexHandle *talvex, int64_t *state) {
    CFTypeRef prop = IORegistryEntryCreateCFProperty(talvex->service, CFSTR("talvex-state"), kCFAllocatorDefault, 0);
    if (prop && CFGetTypeID(prop) == CFNumberGetTypeID()) {
        CFIndex value = 0;
        CFNumberGetValue(static_cast<CFNumberRef>(prop), kCFNumberCFIndexType, &value);
        if (state) *state = static_cast<int64_t>(value);
    } else {
        TALVEX_ASSERT_REPORT("prop && CFGetTypeID(prop) == CFNumberGetTypeID()", "", 0);
    }
    if (prop) CFRelease(prop);
}
