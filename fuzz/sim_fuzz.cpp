// The simulator's message decoder (Simulation::handle): a fresh simulation
// on a step clock gets up to 64 messages from two clients, raw bytes or
// requests of every op laid out field by field (IDs mostly ones that exist,
// property lists mostly well formed, control words), with time moving on
// and clients leaving in between. Every request gets exactly one
// well-formed reply with its own op and sequence number, events are
// well-formed, and clients that left leave no user client or registration.
#include <IOKit/IOCFSerialize.h>
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "clock.h"
#include "plist_gen.h"
#include "simulation.h"
#include "wire.h"

namespace {

namespace sim = talvex::sim;
namespace wire = talvex::wire;
using talvex::fuzz::one_of;
using talvex::fuzz::PlistGen;
using talvex::fuzz::usually;
using talvex::CFRef;

[[noreturn]] void fail(const char *what, uint16_t op) { talvex::fuzz::fail("%s (op %u)", what, op); }

// Checks every frame the simulation sends and counts the replies.
struct Sink final : sim::Outbox {
    uint16_t op = 0;
    uint32_t seq = 0;
    size_t replies = 0;

    void send(sim::ClientId, std::vector<uint8_t> frame, int) override {
        if (frame.size() < 12) fail("a frame shorter than its header", op);
        uint32_t len = wire::load_le32(frame.data());
        if (len != frame.size() - 4 || len > wire::kMaxFrame) fail("a frame whose length is wrong", op);
        uint16_t fop = wire::load_le16(frame.data() + 4);
        uint32_t fseq = wire::load_le32(frame.data() + 8);
        if (fop == static_cast<uint16_t>(wire::Op::Event)) {
            if (fseq != 0) fail("an event with a sequence number", op);
            return;
        }
        if (fop != static_cast<uint16_t>(op | wire::kReplyBit) || fseq != seq || len < 12)
            fail("a reply that does not answer the request", op);
        ++replies;
    }
};

constexpr uint64_t kEntries[] = {0x100000400, 0x100000401, 0x100000402, 0};

constexpr std::string_view kKeys[] = {
    "talvex-state", "IOReportLegend", "IOReportLegendPublic", "IOClass", "IOProviderClass", "", "key",
};

// Control words: commands, their options and values that parse.
constexpr std::string_view kControlWords[] = {
    "trace", "--clear", "stub", "--selector", "--service", "--scalars", "--input-prefix", "--code", "--output",
    "--output-size", "--scalar-outputs", "--times", "--open", "notify", "--value", "--data", "property", "set",
    "delete", "--type", "number", "string", "bool", "data", "service", "publish", "unpublish", "help", "-h", "--",
    "ZantraTalvexProcessor", "IOReportHub", "talvex-state", "0", "1", "2", "6", "13", "40", "0x10", "-1",
    "0xe00002c7", "1,2,3", "", "00", "0011ff", "abc", "true", "8388608", "8388609", "0xe0000130",
};

uint64_t entry(FuzzedDataProvider &in) { return usually(in, one_of(in, kEntries)); }

uint32_t small_id(FuzzedDataProvider &in) { return usually(in, in.ConsumeIntegralInRange<uint32_t>(0, 6)); }

template <size_t N>
std::string pick(FuzzedDataProvider &in, const std::string_view (&words)[N]) {
    if (in.ConsumeIntegralInRange(0, 7) == 0) return in.ConsumeRandomLengthString(24);
    return std::string(one_of(in, words));
}

// A property list in the registry's form: generated, or raw bytes.
std::vector<uint8_t> plist_blob(FuzzedDataProvider &in, bool matching) {
    if (in.ConsumeIntegralInRange(0, 5) == 0) return in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 200));
    CFRef<CFTypeRef> value;
    if (matching) {
        CFMutableDictionaryRef d = talvex::fuzz::new_dictionary();
        value.reset(d);
        PlistGen gen(in, {sim::kCoprocessorClass, sim::kReportHubClass, "IOProviderClass", "IONameMatch",
                          "IOPropertyMatch", "talvex-state", "IOReportLegendPublic"});
        size_t n = in.ConsumeIntegralInRange<size_t>(0, 3);
        for (size_t i = 0; i < n; ++i) {
            CFRef<CFStringRef> k(gen.string());
            CFRef<CFTypeRef> v(in.ConsumeBool() ? static_cast<CFTypeRef>(gen.string()) : gen.value(1));
            CFDictionarySetValue(d, k.get(), v.get());
        }
    } else {
        PlistGen gen(in, {"booted", "talvex-state"});
        value.reset(gen.value());
    }
    CFRef<CFDataRef> data(IOCFSerialize(value.get(), 0));
    if (!data) return {};
    const uint8_t *p = CFDataGetBytePtr(data.get());
    return std::vector<uint8_t>(p, p + CFDataGetLength(data.get()));
}

// The body of a request of `op`, field by field.
void body(FuzzedDataProvider &in, wire::Op op, wire::Writer &w) {
    switch (op) {
    case wire::Op::Hello:
        w.u32(in.ConsumeBool() ? wire::kProtocolVersion : in.ConsumeIntegral<uint32_t>());
        w.u32(in.ConsumeIntegral<uint32_t>());
        break;
    case wire::Op::Match: w.blob(plist_blob(in, true)); break;
    case wire::Op::Generation: break;
    case wire::Op::EntryInfo:
    case wire::Op::GetProperties: w.u64(entry(in)); break;
    case wire::Op::GetProperty:
        w.u64(entry(in));
        w.str(pick(in, kKeys));
        break;
    case wire::Op::SetProperty:
        w.u64(entry(in));
        w.str(pick(in, kKeys));
        w.blob(plist_blob(in, false));
        break;
    case wire::Op::Open:
        w.u64(entry(in));
        w.u32(in.ConsumeIntegralInRange(0, 3) == 0 ? in.ConsumeIntegral<uint32_t>() : 0);
        break;
    case wire::Op::Close:
    case wire::Op::RemoveInterest: w.u32(small_id(in)); break;
    case wire::Op::Call: {
        w.u32(small_id(in));
        w.u32(in.ConsumeIntegralInRange<uint32_t>(0, 42));
        uint32_t n = in.ConsumeIntegralInRange<uint32_t>(0, 17);
        w.u32(n);
        for (uint32_t i = 0; i < n; ++i)
            w.u64(in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(0, 300) : in.ConsumeIntegral<uint64_t>());
        w.blob(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 300)));
        w.u32(in.ConsumeIntegralInRange<uint32_t>(0, 17));
        w.u64(in.ConsumeBool() ? in.ConsumeIntegralInRange<uint64_t>(0, 512) : in.ConsumeIntegral<uint64_t>());
        w.u8(in.ConsumeIntegralInRange<uint8_t>(0, 3));
        break;
    }
    case wire::Op::Map:
        w.u32(small_id(in));
        w.u32(in.ConsumeIntegralInRange(0, 3) == 0 ? in.ConsumeIntegral<uint32_t>() : 0);
        w.u32(in.ConsumeIntegral<uint32_t>());
        break;
    case wire::Op::AddInterest:
        w.u64(entry(in));
        w.str(in.ConsumeBool() ? std::string("IOGeneralInterest") : in.ConsumeRandomLengthString(16));
        break;
    case wire::Op::Control: {
        uint32_t n = in.ConsumeIntegralInRange<uint32_t>(0, 10);
        w.u32(n);
        for (uint32_t i = 0; i < n; ++i) w.str(pick(in, kControlWords));
        break;
    }
    default: break;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FuzzedDataProvider in(data, size);
    Sink sink;
    sim::Simulation s(sink, std::make_unique<sim::StepClock>());

    for (int m = 0; m < 64 && in.remaining_bytes() > 0; ++m) {
        sim::ClientId client = in.ConsumeIntegralInRange<sim::ClientId>(1, 2);
        switch (in.ConsumeIntegralInRange(0, 15)) {
        case 0:
            static_cast<sim::StepClock &>(s.clock())
                .advance(in.ConsumeIntegralInRange<uint64_t>(0, 3 * sim::kNanosPerSecond));
            s.run_timers();
            continue;
        case 1:
            s.client_gone(client);
            continue;
        default:
            break;
        }
        wire::Writer w;
        uint16_t op;
        if (in.ConsumeIntegralInRange(0, 7) == 0) {
            // Raw bytes after the header.
            op = in.ConsumeIntegral<uint16_t>();
            auto raw = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(0, 64));
            w.bytes(raw);
        } else {
            op = in.ConsumeIntegralInRange<uint16_t>(1, 15);
            body(in, static_cast<wire::Op>(op), w);
            if (in.ConsumeIntegralInRange(0, 7) == 0) w.bytes(in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange<size_t>(1, 8)));
        }
        uint32_t seq = in.ConsumeIntegral<uint32_t>();
        std::vector<uint8_t> frame = wire::make_request(static_cast<wire::Op>(op), seq, w.data());
        sink.op = op;
        sink.seq = seq;
        sink.replies = 0;
        s.handle(client, std::span<const uint8_t>(frame).subspan(4));
        if (sink.replies != 1) fail("a request that did not get exactly one reply", op);
    }
    // Both clients gone: nothing of theirs may remain.
    s.client_gone(1);
    s.client_gone(2);
    if (s.connection_count() != 0 || s.interest_count() != 0) fail("disconnected clients left state behind", 0);
    return 0;
}
