// talvexctl's entry point and every command handler that returns (all but
// monitor, ioreport and cpuload), in-process, against the in-process
// simulator. An input sets the simulator up (coprocessor state, stubbed
// answers, failing opens, an odd "talvex-state", a hidden driver, simulated
// time per request), then runs up to three commands shaped after their
// usage, now and then bent, or of any words. Every command must exit with 0
// or 1, leave no user client open and no handle on the driver's service, and
// keep the host's link to the simulator intact.
#include <fuzzer/FuzzedDataProvider.h>
#include <getopt.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>
#include <vector>

#include "coprocessor.h"
#include "plist_gen.h"
#include "sim_host.h"

int talvexctl_main(int argc, char *argv[]);

namespace {

using talvex::fuzz::one_of;
using talvex::fuzz::SimHost;
namespace sim = talvex::sim;

// The command table's words, less the three commands that never return,
// each with the shape of its arguments: words separated by blanks, where
// a|b|c is one of the literals, dev a device name, hex a hexadecimal number,
// dec a decimal one, text any text, and a trailing * repeats a word (zero
// or more times) and ? makes it optional. Several shapes are separated by ';'.
struct Shape {
    std::string_view command, shapes;
};
constexpr Shape kCommands[] = {
    {"help", ""},
    {"reset", ""},
    {"ping", ""},
    {"start", "--noautobaud|--nowaitforready|--notimesync|--noheartbeat|--noconfig|--debug|--nopaniccheck|-a|-d|-p|--bogus* text? dec?"},
    {"stop", ""},
    {"gettalvexstate", ""},
    {"readreg", "dev hex hex"},
    {"writereg", "dev hex hex hex*"},
    {"bb", "dec"},
    {"timesync", ""},
    {"cma", "hex*"},
    {"spi", "read|write hex hex*"},
    {"i2c", "read hex hex hex; readreg hex hex hex hex; write hex hex hex*; writereg hex hex hex hex*"},
    {"mem", "read hex hex hex; write hex hex hex*"},
    {"gpio", "read dec; write dec dec"},
    {"rate", "dec"},
    {"fw0", ""},
    {"fw1", ""},
    {"conn", ""},
    {"pmu", "hex"},
    {"get", "hex hex"},
    {"set", "hex hex hex"},
    {"setstate", "hex"},
    {"wake", "dec"},
    {"halt", "dec dec?"},
    {"halt_ms", "dec dec dec?"},
    {"profile", "start|stop|reset|print; gethitpoint|getfunction dec|text"},
    {"clkredirect", "enable|disable"},
    {"clkmeasure", "irc|pll|lfosc|current|ircdiff?"},
    {"clkstartup", ""},
    {"powerlog", "start|stop|reset|getpowerlog"},
    {"setbaudrate", "112500|750000|1500000|3000000|dec"},
    {"listclients", "dev"},
    {"listsensors", ""},
    {"sensorinfo", "dev"},
    {"panic", "text?"},
    {"report", ""},
    {"setproperty", "text hex"},
    {"uart", "ping|pingreply|cmreply|raw ap|bb|isp hex*; ping|pingreply|cmreply|raw ap|bb|isp --preamble|--retry dec hex*; "
             "ping|pingreply|cmreply|raw ap|bb|isp text"},
    {"perfmon", "dev auto|enable|disable|enabled|report"},
};
constexpr std::string_view kDevices[] = {"gyro", "accel", "compass", "pressure", "talvex", "corvel", "prox"};

// Words the handlers look for (besides kDevices), and numbers near their limits.
constexpr std::string_view kWords[] = {
    "read", "write", "readreg", "writereg", "start", "stop", "reset", "print", "gethitpoint", "getfunction",
    "getpowerlog", "enable", "disable", "enabled", "report", "auto", "irc", "pll", "lfosc", "current", "ircdiff",
    "ping", "pingreply", "cmreply", "raw", "ap", "bb", "isp", "--preamble", "--retry", "--debug", "--noautobaud",
    "--nowaitforready", "--notimesync", "--noheartbeat", "--noconfig", "--nopaniccheck", "-a", "-d", "-p", "--",
    "--bogus", "", "0", "1", "2", "3", "7", "10", "f", "11", "16", "17", "ff", "100", "1ff", "7fffffff", "80000000",
    "ffffffff", "ffffffffffffffff", "-1", "0x10", "99", "101", "4096", "4097", "112500", "750000", "1500000", "3000000",
    "0x80", "0x83", "96", "1000", "4294968", "fw.img", "/tmp/fw.img", "hello",
    "a_rather_long_profile_entry_name_that_does_not_fit_in_sixty_four_bytes_x",
};

std::string number_word(FuzzedDataProvider &in) {
    auto v = in.ConsumeIntegral<uint64_t>();
    char buf[32];
    switch (in.ConsumeIntegralInRange(0, 2)) {
    case 0: std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(v)); break;
    case 1: std::snprintf(buf, sizeof buf, "%llu", static_cast<unsigned long long>(v % 100000)); break;
    default: std::snprintf(buf, sizeof buf, "%lld", static_cast<long long>(v)); break;
    }
    return buf;
}

std::vector<std::string_view> split(std::string_view text, char by) {
    std::vector<std::string_view> parts;
    while (!text.empty()) {
        size_t at = text.find(by);
        std::string_view part = text.substr(0, at);
        while (!part.empty() && part.front() == ' ') part.remove_prefix(1);
        if (!part.empty()) parts.push_back(part);
        if (at == std::string_view::npos) break;
        text.remove_prefix(at + 1);
    }
    return parts;
}

// One word for a shape's word (its * or ? already taken off).
std::string word_for(FuzzedDataProvider &in, std::string_view word) {
    std::vector<std::string_view> choices = split(word, '|');
    std::string_view kind = choices[in.ConsumeIntegralInRange<size_t>(0, choices.size() - 1)];
    if (kind == "dev") return std::string(one_of(in, kDevices));
    if (kind == "hex") {
        char buf[24];
        auto v = in.ConsumeIntegral<uint64_t>();
        std::snprintf(buf, sizeof buf, "%llx", static_cast<unsigned long long>(in.ConsumeBool() ? v & 0x1f : v & 0xff));
        return in.ConsumeIntegralInRange(0, 7) == 0 ? number_word(in) : buf;
    }
    if (kind == "dec") {
        if (in.ConsumeIntegralInRange(0, 3) == 0) return number_word(in);
        return std::to_string(in.ConsumeIntegralInRange<unsigned>(0, 20));
    }
    if (kind == "text") return in.ConsumeRandomLengthString(80);
    return std::string(kind);
}

// Words following a shape of the command.
void shaped(FuzzedDataProvider &in, std::string_view shapes, std::vector<std::string> &words) {
    std::vector<std::string_view> alternatives = split(shapes, ';');
    if (alternatives.empty()) return;
    for (std::string_view w : split(alternatives[in.ConsumeIntegralInRange<size_t>(0, alternatives.size() - 1)], ' ')) {
        if (w.back() == '?') {
            if (in.ConsumeBool()) words.push_back(word_for(in, w.substr(0, w.size() - 1)));
        } else if (w.back() == '*') {
            // Long runs now and then: some commands refuse more than 16 or 256 words.
            size_t n = in.ConsumeIntegralInRange(0, 7) == 0 ? in.ConsumeIntegralInRange<size_t>(0, 300)
                                                            : in.ConsumeIntegralInRange<size_t>(0, 18);
            for (size_t k = 0; k < n; ++k) words.push_back(word_for(in, w.substr(0, w.size() - 1)));
        } else {
            words.push_back(word_for(in, w));
        }
    }
}

// Words of any kind: table words, numbers, raw text.
void unshaped(FuzzedDataProvider &in, std::vector<std::string> &words) {
    size_t items = in.ConsumeIntegralInRange<size_t>(0, 24);
    for (size_t i = 0; i < items; ++i) {
        switch (in.ConsumeIntegralInRange(0, 7)) {
        case 0:
        case 1:
        case 2: words.emplace_back(in.ConsumeBool() ? one_of(in, kDevices) : one_of(in, kWords)); break;
        case 3:
        case 4: words.push_back(number_word(in)); break;
        default: words.push_back(in.ConsumeRandomLengthString(80)); break;
        }
    }
}

// An argument vector: mostly a command with arguments of its shape, with a
// word now and then dropped, changed or added; sometimes any words at all.
// (An unknown command runs help, which the table's "help" row reaches.)
std::vector<std::string> argument_vector(FuzzedDataProvider &in) {
    std::vector<std::string> words{"talvexctl"};
    size_t which = in.ConsumeIntegralInRange<size_t>(0, std::size(kCommands) - 1);
    words.emplace_back(kCommands[which].command);
    switch (in.ConsumeIntegralInRange(0, 7)) {
    case 0: unshaped(in, words); break;
    case 1:
        shaped(in, kCommands[which].shapes, words);
        if (words.size() > 2) words.erase(words.begin() + static_cast<long>(in.ConsumeIntegralInRange<size_t>(2, words.size() - 1)));
        break;
    case 2:
        shaped(in, kCommands[which].shapes, words);
        words.insert(words.begin() + static_cast<long>(in.ConsumeIntegralInRange<size_t>(2, words.size())),
                     std::string(one_of(in, kWords)));
        break;
    case 3:
        shaped(in, kCommands[which].shapes, words);
        if (words.size() > 2)
            words[in.ConsumeIntegralInRange<size_t>(2, words.size() - 1)] = in.ConsumeRandomLengthString(80);
        break;
    default: shaped(in, kCommands[which].shapes, words); break;
    }
    return words;
}

constexpr IOReturn kCodes[] = {
    kIOReturnSuccess,     kIOReturnError,    kIOReturnNotReady,  kIOReturnUnsupported, kIOReturnBadArgument,
    kIOReturnNoDevice,    kIOReturnTimeout,  kIOReturnNotFound,  kIOReturnBusy,        kIOReturnIPCError,
    static_cast<IOReturn>(0x1), static_cast<IOReturn>(0x10000003), static_cast<IOReturn>(0xe00002c7 & 0x1fffffff),
};

IOReturn code(FuzzedDataProvider &in) {
    if (in.ConsumeIntegralInRange(0, 3) == 0) return in.ConsumeIntegral<IOReturn>();
    return one_of(in, kCodes);
}

constexpr uint64_t kStates[] = {
    kTalvexStateOff,    kTalvexStateStopped,       kTalvexStateBooting,
    kTalvexStateBooted, kTalvexStateNotResponding, kTalvexStatePanic,
};

constexpr uint64_t kSteps[] = {0, 1'000'000, 100'000'000, 2 * sim::kNanosPerSecond};

void set_up(FuzzedDataProvider &in, sim::Simulation &s) {
    sim::Service *cp = s.registry().find_class(sim::kCoprocessorClass);
    auto *cop = dynamic_cast<sim::Coprocessor *>(cp->model.get());
    if (cop && in.ConsumeIntegralInRange(0, 3) != 0)
        cop->set_state(one_of(in, kStates));

    size_t stubs = in.ConsumeIntegralInRange<size_t>(0, 6);
    for (size_t i = 0; i < stubs; ++i) {
        sim::CallStub stub;
        stub.service = sim::kCoprocessorClass;
        stub.selector = in.ConsumeIntegralInRange<uint32_t>(0, kTalvexMethodCount);   // one beyond the last
        stub.code = code(in);
        stub.output = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 300));
        if (in.ConsumeIntegralInRange(0, 3) == 0)
            stub.output_size = in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(0, 512) : in.ConsumeIntegral<uint64_t>();
        size_t scalars = in.ConsumeIntegralInRange<size_t>(0, 3);
        for (size_t k = 0; k < scalars; ++k) stub.scalar_outputs.push_back(in.ConsumeIntegral<uint64_t>());
        // A budget for every stub: listclients and profile print call once
        // per entry the driver reports, so an answer repeated forever could
        // keep them calling for 2^32 rounds.
        stub.times = in.ConsumeIntegralInRange<uint64_t>(1, 4);
        s.stubs().add(std::move(stub));
    }
    if (in.ConsumeIntegralInRange(0, 15) == 0) {
        sim::OpenStub open;
        open.service = sim::kCoprocessorClass;
        open.code = code(in);
        if (in.ConsumeBool()) open.times = 1;
        s.stubs().add(std::move(open));
    }
    switch (in.ConsumeIntegralInRange(0, 31)) {
    case 0: cp->remove_property("talvex-state"); break;
    case 1: {
        auto text = talvex::make_cf_string("booted");
        cp->set_property("talvex-state", text.get());
        break;
    }
    case 2: s.set_published(*cp, false); break;
    default: break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    SimHost &host = SimHost::instance();
    host.reset([&](sim::Simulation &s) { set_up(in, s); });
    host.set_step(one_of(in, kSteps));

    size_t commands = in.ConsumeIntegralInRange<size_t>(1, 3);
    for (size_t c = 0; c < commands; ++c) {
        std::vector<std::string> words = argument_vector(in);
        // A process's arguments end at their first NUL.
        for (std::string &w : words) w.resize(std::strlen(w.c_str()));
        std::vector<char *> argv;
        for (std::string &w : words) argv.push_back(w.data());
        argv.push_back(nullptr);

        optind = 0;   // a fresh process starts getopt from scratch
        int status = talvexctl_main(static_cast<int>(words.size()), argv.data());
        std::fflush(stdout);
        if (status != 0 && status != 1) talvex::fuzz::fail("%s exited with %d", words[1].c_str(), status);
        // The link's round trip first: a close goes without waiting for its
        // answer, and is handled before the next request.
        host.check_link();
        size_t open = 0;
        host.with([&](sim::Simulation &s) { open = s.connection_count(); });
        if (open != 0) talvex::fuzz::fail("%s left %zu user client(s) open", words[1].c_str(), open);
        SimHost::check_released(sim::kCoprocessorClass, words[1].c_str());
    }
    return 0;
}
