// In-process tests of the simulator's parts. (Stubs and matching: every case
// in tests/cases, and tests/iokit.)
#include <IOKit/IOCFSerialize.h>
#include <gtest/gtest.h>

#include "budget.h"
#include "control.h"
#include "coprocessor.h"
#include "methods.h"
#include "registry.h"
#include "simulation.h"
#include "timers.h"
#include "trace.h"

using namespace talvex;
using namespace talvex::sim;

namespace {

// Collects the frames the simulation sends.
struct Captured : Outbox {
    std::vector<std::vector<uint8_t>> sent;
    void send(ClientId, std::vector<uint8_t> frame, int) override { sent.push_back(std::move(frame)); }
};

}  // namespace

// The 64-bit edges (talvexsim.case has the bad words and the 32-bit ones).
TEST(SimUnit, NumbersAcceptHexDecimalAndNegatives) {
    EXPECT_EQ(parse_unsigned("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(parse_unsigned("0xffffffffffffffff"), UINT64_MAX);
    for (auto bad : {"", "0x", "18446744073709551616", "0x10000000000000000", "-1"})
        EXPECT_FALSE(parse_unsigned(bad)) << bad;
    EXPECT_EQ(parse_signed("-9223372036854775808"), uint64_t{1} << 63);
    EXPECT_FALSE(parse_signed("-9223372036854775809"));
    EXPECT_EQ(parse_number_list("1,0x2,-1"), (std::vector<uint64_t>{1, 2, UINT64_MAX}));
    EXPECT_FALSE(parse_number_list("1,"));
}

// (Due times and cancelling: the lifecycle model's delayed steps.)
TEST(SimUnit, TimersDueAtTheSameInstantRunInTheOrderTheyWereAdded) {
    TimerQueue q;
    std::string ran;
    q.add(20, [&] { ran += 'd'; });
    for (char c : std::string("abc")) q.add(10, [&ran, c] { ran += c; });
    EXPECT_EQ(q.run_due(20), 4u);
    EXPECT_EQ(ran, "abcd");
}

TEST(SimUnit, MethodTableChecksShapesBeforeHandlers) {
    MethodTable t;
    int called = 0;
    t.define(2, {exactly(1), between(0, 4), exactly(8), none()}, [&](const CallArgs &a, CallReply &r) {
        ++called;
        r.output.assign(a.input.begin(), a.input.end());
        return kIOReturnSuccess;
    });
    t.define(3, {none(), none(), between(0, 16), exactly(2)});
    const uint64_t one[] = {7};
    const uint8_t in[] = {1, 2};
    CallReply r;
    EXPECT_EQ(t.dispatch(CallArgs{2, one, in, 0, 8}, r), kIOReturnSuccess);
    EXPECT_EQ(r.output, (std::vector<uint8_t>{1, 2}));
    EXPECT_EQ(t.dispatch(CallArgs{2, {}, in, 0, 8}, r), kIOReturnBadArgument);
    EXPECT_EQ(t.dispatch(CallArgs{2, one, in, 0, 7}, r), kIOReturnBadArgument);
    EXPECT_EQ(t.dispatch(CallArgs{2, one, in, 1, 8}, r), kIOReturnBadArgument);
    EXPECT_EQ(called, 1);
    // No handler yet: zero-filled outputs of the full asked size.
    CallReply z;
    EXPECT_EQ(t.dispatch(CallArgs{3, {}, {}, 2, 5}, z), kIOReturnSuccess);
    EXPECT_EQ(z.output, std::vector<uint8_t>(5, 0));
    EXPECT_EQ(z.scalars, std::vector<uint64_t>(2, 0));
    EXPECT_EQ(t.dispatch(CallArgs{1, {}, {}, 0, 0}, z), kIOReturnBadArgument);   // a gap in the table
    EXPECT_EQ(t.dispatch(CallArgs{4000, {}, {}, 0, 0}, z), kIOReturnBadArgument);
    EXPECT_FALSE(t.set_handler(1, nullptr));

    // The coprocessor's catalogue: every selector 0-40 declared, nothing beyond;
    // the edges of shapes the model tests do not reach through their calls.
    MethodTable cat;
    define_coprocessor_methods(cat);
    for (uint32_t s = 0; s < kTalvexMethodCount; ++s) EXPECT_TRUE(cat.shape(s)) << s;
    EXPECT_FALSE(cat.shape(kTalvexMethodCount));
    auto accepts = [&](uint32_t sel, size_t scalars, size_t input, uint32_t scap, uint64_t ocap) {
        std::vector<uint64_t> sv(scalars);
        std::vector<uint8_t> iv(input);
        return cat.shape(sel)->accepts(CallArgs{sel, sv, iv, scap, ocap});
    };
    EXPECT_TRUE(accepts(5, 0, 3 + 125, 0, 128));   // SPI: header plus the most data
    EXPECT_FALSE(accepts(5, 0, 129, 0, 128));
    EXPECT_FALSE(accepts(5, 0, 4, 0, 64));
    EXPECT_TRUE(accepts(6, 0, 3, 0, 0));           // a read of length 0 is a valid request
    EXPECT_FALSE(accepts(2, 1, 0, 0, 0));
}

TEST(SimUnit, TraceFormatsAndStaysBounded) {
    // (Call and open lines are compared in every case of tests/cases.)
    EXPECT_EQ(json_string("a\"b\\c\n\x01\x7f"), R"("a\"b\\c\n\u0001\u007f")");
    EXPECT_EQ(json_string("\xc3\xa9"), "\"\xc3\xa9\"");            // valid UTF-8 passes
    EXPECT_EQ(json_string("\xc3(\xed\xa0\x80"), R"("\ufffd(\ufffd\ufffd\ufffd")");   // broken and surrogate
    // The widest numbers, and a name with plain runs between escapes.
    const uint64_t scalars[] = {0, UINT64_MAX};
    const uint8_t input[] = {0xab, 0x01};
    CallArgs args{7, scalars, input, 4294967295u, UINT64_MAX};
    EXPECT_EQ(Trace::call_line("Ab\"c\td\xff", args, kIOReturnNotReady),
              R"({"service":"Ab\"c\td\ufffd","selector":7,"scalars":[0,18446744073709551615],"input":"ab01",)"
              R"("output_size":18446744073709551615,"scalar_output_count":4294967295,"result":3758097112})");
    // A name whose every byte is escaped to six, and an input longer than is traced.
    const std::vector<uint8_t> long_input(kMaxTracedInput + 1, 0x5a);
    std::string hex;
    for (size_t i = 0; i < kMaxTracedInput; ++i) hex += "5a";
    EXPECT_EQ(Trace::call_line("\x01\xff\x7f", CallArgs{1, {}, long_input, 0, 0}, kIOReturnSuccess),
              R"({"service":"\u0001\ufffd\u007f","selector":1,"scalars":[],"input":")" + hex +
                  R"(...","output_size":0,"scalar_output_count":0,"result":0})");

    auto dict = CFRef<CFMutableDictionaryRef>(
        CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks));
    int64_t neg = -5;
    double half = 0.5;
    CFRef<CFNumberRef> n(CFNumberCreate(nullptr, kCFNumberSInt64Type, &neg));
    CFRef<CFNumberRef> d(CFNumberCreate(nullptr, kCFNumberFloat64Type, &half));
    const uint8_t bytes[] = {0xde, 0xad};
    CFRef<CFDataRef> data(CFDataCreate(nullptr, bytes, 2));
    const void *items[] = {n.get(), kCFBooleanFalse, d.get()};
    CFRef<CFArrayRef> arr(CFArrayCreate(nullptr, items, 3, &kCFTypeArrayCallBacks));
    CFDictionarySetValue(dict.get(), CFSTR("z"), data.get());
    CFDictionarySetValue(dict.get(), CFSTR("a"), arr.get());
    CFDictionarySetValue(dict.get(), CFSTR("s"), CFSTR("x\"y"));
    EXPECT_EQ(Trace::write_line("S", "k", dict.get()),
              R"({"service":"S","property":"k","value":{"z":"dead","a":[-5,false,0.5],"s":"x\"y"}})");
    EXPECT_EQ(cf_to_json(data.get(), 3), R"x("(value too large to trace)")x");
    std::vector<uint8_t> big(10, 0x11);
    EXPECT_EQ(trace_hex(big, 2), "1111...");

    Trace t;
    // Each call line names its own service, however the calls alternate.
    const CallArgs ping{3, {}, {}, 0, 0};
    t.add_call("A", ping, kIOReturnSuccess);
    t.add_call("B\"", ping, kIOReturnSuccess);
    t.add_call("A", ping, kIOReturnSuccess);
    EXPECT_EQ(t.text(),
              R"({"service":"A","selector":3,"scalars":[],"input":"","output_size":0,"scalar_output_count":0,"result":0}
{"service":"B\"","selector":3,"scalars":[],"input":"","output_size":0,"scalar_output_count":0,"result":0}
{"service":"A","selector":3,"scalars":[],"input":"","output_size":0,"scalar_output_count":0,"result":0}
)");
    for (size_t i = 0; i < Trace::kMaxLines + 5; ++i) t.add(std::to_string(i));
    EXPECT_EQ(t.lines(), Trace::kMaxLines);
    EXPECT_EQ(t.line(0), "5");
    EXPECT_EQ(t.line(50'000), "50005");
    EXPECT_EQ(t.line(Trace::kMaxLines - 1), "100004");
    t.add(std::string(Trace::kMaxBytes - 10, 'x'));   // the byte bound drops old lines as well
    EXPECT_LE(t.bytes(), Trace::kMaxBytes);
    EXPECT_EQ(t.text().size(), t.bytes());
    t.clear();
    EXPECT_EQ(t.text(), "");
}

TEST(SimUnit, PerClientLimitsAndCleanup) {
    Captured out;
    Simulation sim(out);
    uint64_t cp = sim.registry().find_class(kCoprocessorClass)->id;
    auto request = [&](ClientId client, wire::Op op, const wire::Writer &body) {
        auto frame = wire::make_request(op, 1, body.data());
        sim.handle(client, std::span(frame).subspan(4));
        wire::Reader r(std::span(out.sent.back()).subspan(12));   // length, op, flags, seq, then the code
        return r.i32();
    };
    wire::Writer open;
    open.u64(cp);
    open.u32(0);
    constexpr size_t kPerClient = 4096;
    for (size_t i = 0; i < kPerClient; ++i) ASSERT_EQ(request(1, wire::Op::Open, open), 0);
    EXPECT_EQ(request(1, wire::Op::Open, open), kIOReturnNoResources);
    // The refusal says why, before the open's own line.
    EXPECT_EQ(sim.trace().line(kPerClient),
              R"({"service":"ZantraTalvexProcessor","refused":"budget","what":"user clients","scope":"client","limit":4096})");
    EXPECT_EQ(request(2, wire::Op::Open, open), 0);   // the limit is per client
    wire::Writer close;
    close.u32(1);   // the first connection client 1 opened
    EXPECT_EQ(request(1, wire::Op::Close, close), 0);
    EXPECT_EQ(request(1, wire::Op::Open, open), 0);
    EXPECT_EQ(sim.connection_count(), kPerClient + 1);
    sim.client_gone(1);
    EXPECT_EQ(sim.connection_count(), 1u);
    EXPECT_EQ(sim.budget().accounts(), 1u);   // client 1's account went with it
    EXPECT_EQ(request(1, wire::Op::Open, open), 0);   // a reused client ID starts afresh
    // Every open, failed or not, was traced.
    EXPECT_EQ(sim.trace().lines(), kPerClient + 5);
    // A reply that outgrew its first room holds no more than its bytes while
    // queued: the buffer budget counts those. (Matching everything gives
    // one field per service.)
    for (int i = 0; i < 40; ++i) sim.registry().add("TalvexExtra", "extra");
    CFRef<CFMutableDictionaryRef> all(CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks,
                                                                 &kCFTypeDictionaryValueCallBacks));
    CFRef<CFDataRef> matching(IOCFSerialize(all.get(), 0));
    wire::Writer match;
    match.blob({CFDataGetBytePtr(matching.get()), static_cast<size_t>(CFDataGetLength(matching.get()))});
    ASSERT_EQ(request(3, wire::Op::Match, match), 0);
    EXPECT_GT(out.sent.back().size(), 256u);
    EXPECT_LE(out.sent.back().capacity() - out.sent.back().size(), 64u);
}

TEST(SimUnit, BudgetFloorsPoolAndCaps) {
    BudgetLimits l;
    l.resources[static_cast<size_t>(Resource::Buffers)] = {10, 50, 40, 60};   // floor, per client, pool, total
    Budget b(l);
    constexpr auto kR = Resource::Buffers;
    Verdict v;
    auto a = b.take(1, kR, 40, v);   // 10 of floor, 30 of pool
    ASSERT_TRUE(v);
    auto c = b.take(2, kR, 20, v);   // the pool is full now
    ASSERT_TRUE(v);
    EXPECT_EQ(b.pool_used(kR), 40u);
    auto d = b.take(3, kR, 11, v);
    EXPECT_FALSE(v);
    EXPECT_FALSE(v.per_client);
    EXPECT_EQ(v.limit, 60u);
    EXPECT_EQ(d.amount(), 0u);
    d = b.take(3, kR, 10, v);   // a crowded-out client still has its floor
    EXPECT_TRUE(v);
    c.release();
    v = a.resize(51);   // room in the pool, but over the client's cap
    EXPECT_FALSE(v);
    EXPECT_TRUE(v.per_client);
    EXPECT_EQ(v.limit, 50u);
    EXPECT_EQ(a.amount(), 40u);
    {
        Budget::Charge moved = std::move(a);   // given back once, by its last holder
        EXPECT_EQ(b.used(1, kR), 40u);
    }
    EXPECT_EQ(b.used(1, kR), 0u);
    EXPECT_EQ(b.pool_used(kR), 0u);
    // A client that left keeps its account only while a charge of it is held.
    b.forget(3);
    EXPECT_EQ(b.used(3, kR), 10u);
    d = Budget::Charge();
    b.forget(1);
    EXPECT_EQ(b.accounts(), 1u);   // client 2's charge, released but held
    c = Budget::Charge();
    b.forget(2);
    EXPECT_EQ(b.accounts(), 0u);

    // The documented figures of the default memory budget with 20000
    // descriptors (the small budgets' figures: sim_attack_test.cpp).
    BudgetLimits big = BudgetLimits::derive(size_t{1} << 30, 20000);
    EXPECT_EQ(big.max_clients, 1536u);
    EXPECT_EQ(big[Resource::Descriptors].per_client, 2461u);
    EXPECT_EQ(big[Resource::HubMemory].per_client, 75563008u);
    EXPECT_EQ(big.property_total, 8388608u);
}
