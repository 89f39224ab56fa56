// Report commands: ioreport and cpuload. Both ignore their arguments, read the
// coprocessor driver's (ZantraTalvexProcessor) report channels through the
// report hub rather than through the driver's own user client, take a sample
// once a second and run until a sample can no longer be taken. A setup
// failure prints one "ERROR: ..." line on standard output and gives 1; the
// end of sampling gives 0.
#include "talvexctl.h"

#include <IOReport.h>

#include <unistd.h>

#include <cstdio>

namespace {

// Discovery option passed by both commands. It has no effect in the library.
constexpr uint32_t kReportDiscoveryOptions = 8;

// The report channels cpuload reads.
constexpr uint64_t kTotalChannelID = 0x544F54414C204D53ull;   // "TOTAL MS"
constexpr uint64_t kIdleChannelID = 0x49444C45204D5320ull;    // "IDLE MS "

// What the common setup made; report_close releases it.
struct ReportSession {
    CFMutableDictionaryRef matching;
    CFMutableDictionaryRef channels;
    CFMutableDictionaryRef subscribed;
    IOReportSubscriptionRef subscription;
};

void report_close(ReportSession *session) {
    if (session->subscription) CFRelease(session->subscription);
    if (session->channels) CFRelease(session->channels);
    if (session->subscribed) CFRelease(session->subscribed);
    if (session->matching) CFRelease(session->matching);
}

// Matching, discovery and subscription. On failure prints the step's line on
// standard output, releases what was made and returns false.
bool report_open(ReportSession *session) {
    *session = ReportSession{};
    session->matching = IOServiceMatching(kTalvexServiceClass);
    if (!session->matching) {
        std::puts("ERROR: couldn't create matching dictionary");
        return false;
    }
    session->channels = IOReportCopyChannelsForDrivers(session->matching, kReportDiscoveryOptions, nullptr);
    if (!session->channels) {
        std::puts("ERROR: IOReportCopyChannelsForDrivers() failed");
        report_close(session);
        return false;
    }
    session->subscription =
        IOReportCreateSubscription(kCFAllocatorDefault, session->channels, &session->subscribed, 0, nullptr);
    if (!session->subscription) {
        std::puts("ERROR: IOReportCreateSubscription() failed");
        report_close(session);
        return false;
    }
    return true;
}

CFMutableDictionaryRef report_sample(const ReportSession *session) {
    return IOReportCreateSamples(session->subscription, session->subscribed, nullptr);
}

// Releases the sample just shown, waits a second and takes the next; null
// when sampling fails.
CFMutableDictionaryRef report_next_sample(const ReportSession *session, CFMutableDictionaryRef shown) {
    CFRelease(shown);
    sleep(1);
    return report_sample(session);
}

// One record of an ioreport pass: its description, straight to descriptor 1.
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

float TalvexCpuLoad(uint64_t previous_idle, uint64_t previous_total, uint64_t idle, uint64_t total) {
    uint64_t total_delta = total - previous_total;
    uint64_t busy = (previous_idle - idle) + total_delta;
    return static_cast<float>(static_cast<double>(busy) * 100.0 / static_cast<double>(total_delta));
}

int TalvexCmdIoreport(int, char *[]) {
    ReportSession session;
    if (!report_open(&session)) return 1;
    for (CFMutableDictionaryRef sample = report_sample(&session); sample;
         sample = report_next_sample(&session, sample)) {
        // The header is buffered while the descriptions are not, so on a pipe
        // the headers may come out later than their blocks; that is accepted.
        std::puts("\nZantraTalvexProcessor ioreport:");
        IOReportIterate(sample, print_record);
    }
    report_close(&session);
    return 0;
}

int TalvexCmdCpuload(int, char *[]) {
    ReportSession session;
    if (!report_open(&session)) return 1;
    uint64_t previous_idle = 0, previous_total = 0;
    // A channel missing from a pass keeps the value of the last pass that had it.
    uint64_t idle = 0, total = 0;
    for (CFMutableDictionaryRef sample = report_sample(&session); sample;
         sample = report_next_sample(&session, sample)) {
        IOReportIterate(sample, [&](CFMutableDictionaryRef record) {
            uint64_t id = IOReportChannelGetChannelID(record);
            if (id == kTotalChannelID) total = static_cast<uint64_t>(IOReportSimpleGetIntegerValue(record));
            else if (id == kIdleChannelID) idle = static_cast<uint64_t>(IOReportSimpleGetIntegerValue(record));
            return 0;
        });
        if (previous_idle != 0 && previous_total != 0)
            std::printf("Talvex CPU load: %.2f%%\n",
                        static_cast<double>(TalvexCpuLoad(previous_idle, previous_total, idle, total)));
        previous_idle = idle;
        previous_total = total;
    }
    report_close(&session);
    return 0;
}
