// A program of someone else's, built against the installed report-channel
// library only, run against a simulator: it finds the driver, reads its
// channels through the hub and prints one line per step (exit 1 at a failure).
#include <IOReport.h>

#include <cstdio>
#include <string>

namespace {

std::string text(CFStringRef s) {
    if (!s) return "(null)";
    char buffer[256];
    return CFStringGetCString(s, buffer, sizeof buffer, kCFStringEncodingUTF8) ? buffer : "(unprintable)";
}

int fail(const char *what) {
    std::printf("FAILED: %s\n", what);
    return 1;
}

// The driver's own channels, through the registry and the hub.
int from_driver() {
    io_service_t service = IOServiceGetMatchingService(kIOMasterPortDefault, IOServiceMatching("ZantraTalvexProcessor"));
    if (!service) return fail("no ZantraTalvexProcessor in the registry");
    // The name carries the registry ID after the class: "ZantraTalvexProcessor <id 0x...>".
    CFStringRef driver = IOReportCopyDriverName(service);
    bool named = driver && CFStringHasPrefix(driver, CFSTR("ZantraTalvexProcessor <id 0x"));
    std::printf("driver: %s\n", named ? "ZantraTalvexProcessor" : text(driver).c_str());
    if (driver) CFRelease(driver);
    IOObjectRelease(service);

    CFMutableDictionaryRef matching = IOServiceMatching("ZantraTalvexProcessor");
    CFMutableDictionaryRef channels = IOReportCopyChannelsForDrivers(matching, 0, nullptr);
    CFRelease(matching);
    if (!channels) return fail("IOReportCopyChannelsForDrivers");
    int count = IOReportGetChannelCount(channels);
    bool has_total = false;
    IOReportIterate(channels, [&](CFMutableDictionaryRef channel) {
        has_total = has_total || IOReportChannelGetChannelID(channel) == 0x544F54414C204D53ull;
        return kIOReportIterOk;
    });
    std::printf("published: %s, TOTAL MS %s\n", count > 0 ? "some channels" : "none",
                has_total ? "among them" : "missing");

    CFMutableDictionaryRef subscribed = nullptr;
    IOReportSubscriptionRef subscription =
        IOReportCreateSubscription(kCFAllocatorDefault, channels, &subscribed, 0, nullptr);
    int status = 0;
    if (!subscription) {
        status = fail("IOReportCreateSubscription");
    } else {
        CFMutableDictionaryRef sample = IOReportCreateSamples(subscription, subscribed, nullptr);
        if (!sample) {
            status = fail("IOReportCreateSamples");
        } else {
            int64_t total = kIOReportInvalidValue;
            IOReportIterate(sample, [&](CFMutableDictionaryRef record) {
                if (IOReportChannelGetChannelID(record) == 0x544F54414C204D53ull)
                    total = IOReportSimpleGetIntegerValue(record);
                return kIOReportIterOk;
            });
            std::printf("sampled: TOTAL MS = %lld\n", static_cast<long long>(total));
            CFRelease(sample);
        }
        CFRelease(subscription);
    }
    if (subscribed) CFRelease(subscribed);
    CFRelease(channels);
    return status;
}

}  // namespace

int main() { return from_driver(); }
