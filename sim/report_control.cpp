// The report-channel control commands: `channel set`, `channel release` and
// `load` (parsed in control.cpp).
#include <string>

#include "control.h"
#include "hub.h"
#include "report_models.h"

namespace talvex::sim {

namespace {

const char *format_name(uint8_t format) {
    switch (format) {
    case kReportSimple: return "simple";
    case kReportState: return "state";
    case kReportHistogram: return "histogram";
    case kReportArray: return "array";
    default: return "unknown";
    }
}

}  // namespace

ControlResult execute_report_control(Simulation &sim, Service &service, const ControlCommand &c) {
    using Kind = ControlCommand::Kind;
    ControlResult result;
    auto fail = [&](const std::string &message) {
        result.code = 1;
        result.err = "talvexsim: " + message + "\n";
        return result;
    };
    if (c.kind == Kind::Load) {
        if (!set_coprocessor_load(sim, c.load)) return fail("load: the coprocessor publishes no load");
        return result;
    }
    const std::string what = c.kind == Kind::ChannelSet ? "channel set: " : "channel release: ";
    ReportHub *hub = ReportHub::of(sim);
    ReportSource *source = hub ? hub->source_for(service) : nullptr;
    if (!source) return fail(what + service.class_name + " publishes no report channels");
    auto index = source->find(c.channel);
    if (!index) return fail(what + service.class_name + " has no channel '" + c.channel + "'");
    const ReportChannel &channel = source->channels()[*index];
    size_t values = channel.settable_values();
    if (values == 0)
        return fail(what + "'" + channel.name + "' is a " + format_name(channel.format()) +
                    " channel; only simple and array channels take a value");
    if (c.value_index >= values)
        return fail(what + "--index " + std::to_string(c.value_index) + " is out of range ('" + channel.name +
                    "' has " + std::to_string(values) + (values == 1 ? " value)" : " values)"));
    // Figures up to now first, so a release continues from the current time.
    source->advance();
    if (c.kind == Kind::ChannelSet) {
        source->set_value(*index, c.value_index, c.channel_value);
    } else if (!source->release_value(*index, c.value_index)) {
        return fail(what + "'" + channel.name + "' value " + std::to_string(c.value_index) + " is not held");
    }
    return result;
}

}  // namespace talvex::sim
