// The loops of `ioreport` and `cpuload`: discovery of the coprocessor
// driver's channels, one subscription, then a sample a second until sampling
// fails.
#include "report_commands.h"

#include "IOReport.h"

#include <unistd.h>

#include <cstdio>

namespace {

// Discovery option passed by both commands. It has no effect in the library.
constexpr uint32_t kCommandDiscoveryOptions = 8;

// What the common setup made; released when the command ends.
struct ReportSession {
    CFMutableDictionaryRef matching = nullptr;
    CFMutableDictionaryRef channels = nullptr;
    CFMutableDictionaryRef subscribed = nullptr;
    IOReportSubscriptionRef subscription = nullptr;

    ReportSession() = default;
    ReportSession(const ReportSession &) = delete;
    ReportSession &operator=(const ReportSession &) = delete;
    ~ReportSession() {
        if (subscription) CFRelease(subscription);
        if (channels) CFRelease(channels);
        if (subscribed) CFRelease(subscribed);
        if (matching) CFRelease(matching);
    }
};

// Matching, discovery and subscription. On failure prints the step's line on
// standard output and returns false.
bool report_setup(ReportSession &session) {
    session.matching = IOServiceMatching("ZantraTalvexProcessor");
    if (!session.matching) {
        std::puts("ERROR: couldn't create matching dictionary");
        return false;
    }
    session.channels = IOReportCopyChannelsForDrivers(session.matching, kCommandDiscoveryOptions, nullptr);
    if (!session.channels) {
        std::puts("ERROR: IOReportCopyChannelsForDrivers() failed");
        return false;
    }
    session.subscription =
        IOReportCreateSubscription(kCFAllocatorDefault, session.channels, &session.subscribed, 0, nullptr);
    if (!session.subscription) {
        std::puts("ERROR: IOReportCreateSubscription() failed");
        return false;
    }
    return true;
}

// Runs the common setup, then `pass` on every sample, one a second, until a
// sample can't be taken.
template <typename Pass>
int report_loop(Pass &&pass) {
    ReportSession session;
    if (!report_setup(session)) return 1;
    CFMutableDictionaryRef sample = IOReportCreateSamples(session.subscription, session.subscribed, nullptr);
    while (sample) {
        pass(sample);
        CFRelease(sample);
        sleep(1);
        sample = IOReportCreateSamples(session.subscription, session.subscribed, nullptr);
    }
    return 0;
}

// One record of an `ioreport` pass: its description, straight to descriptor 1.
int print_record(CFMutableDictionaryRef record) {
    CFStringRef description = IOReportSampleCopyDescription(record, nullptr, nullptr);
    if (!description) {
        std::puts("WARNING: IOReportSampleCopyDescription() failed");
        return 1;
    }
    int result = 0;
    if (IOReportWriteStringUTF8(STDOUT_FILENO, description) != kIOReturnSuccess) {
        std::puts("WARNING: error printing sample description");
        result = kIOReportIterFailed;
    }
    CFRelease(description);
    return result;
}

}  // namespace

float IOReportCpuLoad(uint64_t previous_idle, uint64_t previous_total, uint64_t idle, uint64_t total) {
    uint64_t total_delta = total - previous_total;
    uint64_t busy = (previous_idle - idle) + total_delta;
    return static_cast<float>(static_cast<double>(busy) * 100.0 / static_cast<double>(total_delta));
}

int IOReportCommandIoreport(void) {
    return report_loop([](CFMutableDictionaryRef sample) {
        // The header is buffered while the descriptions are not, so on a pipe
        // the headers may come out later than their blocks; that is accepted.
        std::puts("\nZantraTalvexProcessor ioreport:");
        IOReportIterate(sample, print_record);
    });
}

int IOReportCommandCpuload(void) {
    uint64_t previous_idle = 0, previous_total = 0;
    // A channel missing from a pass keeps the value of the last pass that had it.
    uint64_t idle = 0, total = 0;
    return report_loop([&](CFMutableDictionaryRef sample) {
        IOReportIterate(sample, [&](CFMutableDictionaryRef record) {
            uint64_t id = IOReportChannelGetChannelID(record);
            if (id == kIOReportTotalChannelID) total = static_cast<uint64_t>(IOReportSimpleGetIntegerValue(record));
            else if (id == kIOReportIdleChannelID) idle = static_cast<uint64_t>(IOReportSimpleGetIntegerValue(record));
            return 0;
        });
        if (previous_idle != 0 && previous_total != 0)
            std::printf("Talvex CPU load: %.2f%%\n",
                        static_cast<double>(IOReportCpuLoad(previous_idle, previous_total, idle, total)));
        previous_idle = idle;
        previous_total = total;
    });
}
