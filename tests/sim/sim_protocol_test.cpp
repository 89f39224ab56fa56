// End-to-end: a private talvexsim and a raw protocol client.
#include <gtest/gtest.h>
#include <sys/mman.h>

#include "harness.h"
#include "sim_client.h"

using namespace talvex;
using namespace talvex::test;

namespace {

constexpr int32_t kBadArgument = static_cast<int32_t>(0xe00002c2);
constexpr const char *kCoprocessor = "ZantraTalvexProcessor";

CFMutableDictionaryRef new_dict() {
    return CFDictionaryCreateMutable(nullptr, 0, &kCFTypeDictionaryKeyCallBacks, &kCFTypeDictionaryValueCallBacks);
}

int64_t number_value(CFTypeRef v) {
    int64_t out = 0;
    EXPECT_TRUE(v && CFGetTypeID(v) == CFNumberGetTypeID());
    if (v && CFGetTypeID(v) == CFNumberGetTypeID()) CFNumberGetValue(static_cast<CFNumberRef>(v), kCFNumberSInt64Type, &out);
    return out;
}

}  // namespace

TEST(SimProtocol, HelloMatchEntryInfoAndProperties) {
    Simulator sim;
    RawClient c(sim.socket());
    ASSERT_TRUE(c.connected());

    wire::Writer hello;
    hello.u32(wire::kProtocolVersion);
    hello.u32(static_cast<uint32_t>(getpid()));
    auto f = c.request(wire::Op::Hello, hello);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->code, 0);
    wire::Reader hr(f->body);
    EXPECT_EQ(hr.u32(), wire::kProtocolVersion);
    wire::Writer old;
    old.u32(wire::kProtocolVersion + 1);
    old.u32(1);
    EXPECT_EQ(c.request(wire::Op::Hello, old)->code, static_cast<int32_t>(kIOReturnUnsupported));

    // Matching by class, name and property; an empty dictionary matches every service.
    uint64_t cp = c.service(kCoprocessor);
    uint64_t hub = c.service("IOReportHub");
    EXPECT_NE(cp, 0u);
    EXPECT_NE(hub, cp);
    EXPECT_TRUE(c.match_class("NoSuchClass").empty());
    CFMutableDictionaryRef all = new_dict();
    EXPECT_EQ(c.match(all), (std::vector<uint64_t>{cp, hub, c.service("ZantraPowerController"),
                                                   c.service("ZantraThermalMonitor")}));
    CFDictionarySetValue(all, CFSTR("IONameMatch"), CFSTR("IOReportHub"));
    EXPECT_EQ(c.match(all), std::vector<uint64_t>{hub});
    CFRelease(all);

    CFMutableDictionaryRef by_prop = new_dict();
    CFMutableDictionaryRef props = new_dict();
    int64_t booted = 0x10002;
    CFNumberRef n = CFNumberCreate(nullptr, kCFNumberSInt64Type, &booted);
    CFDictionarySetValue(props, CFSTR("talvex-state"), n);
    CFDictionarySetValue(by_prop, CFSTR("IOPropertyMatch"), props);
    EXPECT_EQ(c.match(by_prop), std::vector<uint64_t>{cp});
    CFDictionarySetValue(by_prop, CFSTR("IOProviderClass"), CFSTR("IOReportHub"));   // every key must match
    EXPECT_TRUE(c.match(by_prop).empty());
    CFRelease(n);
    CFRelease(props);
    CFRelease(by_prop);

    // Something that is not a dictionary cannot be matched.
    int32_t code = 0;
    c.match(reinterpret_cast<CFDictionaryRef>(CFSTR("IOProviderClass")), nullptr, &code);
    EXPECT_EQ(code, kBadArgument);

    wire::Writer info;
    info.u64(cp);
    f = c.request(wire::Op::EntryInfo, info);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->code, 0);
    wire::Reader ir(f->body);
    EXPECT_EQ(ir.str(), kCoprocessor);
    EXPECT_EQ(ir.str(), kCoprocessor);
    EXPECT_TRUE(ir.at_end());
    wire::Writer bogus;
    bogus.u64(12345);
    EXPECT_EQ(c.request(wire::Op::EntryInfo, bogus)->code, kBadArgument);

    CFTypeRef state = c.property(cp, "talvex-state");
    EXPECT_EQ(number_value(state), 0x10002);
    if (state) CFRelease(state);
    code = 0;
    EXPECT_EQ(c.property(cp, "no-such-key", &code), nullptr);
    EXPECT_EQ(code, static_cast<int32_t>(kIOReturnNotFound));

    wire::Writer all_props;
    all_props.u64(cp);
    f = c.request(wire::Op::GetProperties, all_props);
    ASSERT_TRUE(f);
    wire::Reader pr(f->body);
    auto blob = pr.blob();
    CFTypeRef dict = IOCFUnserializeWithSize(reinterpret_cast<const char *>(blob.data()), blob.size(), nullptr, 0, nullptr);
    ASSERT_TRUE(dict && CFGetTypeID(dict) == CFDictionaryGetTypeID());
    EXPECT_EQ(number_value(CFDictionaryGetValue(static_cast<CFDictionaryRef>(dict), CFSTR("talvex-state"))), 0x10002);
    CFRelease(dict);

    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, SetPropertyIsReadBackAndTraced) {
    Simulator sim;
    RawClient c(sim.socket());
    uint64_t cp = c.service(kCoprocessor);
    int64_t v = 255;
    CFNumberRef n = CFNumberCreate(nullptr, kCFNumberSInt64Type, &v);
    CFDataRef data = IOCFSerialize(n, 0);
    wire::Writer w;
    w.u64(cp);
    w.str("key");
    w.blob({CFDataGetBytePtr(data), static_cast<size_t>(CFDataGetLength(data))});
    auto f = c.request(wire::Op::SetProperty, w);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->code, 0);
    CFRelease(data);
    CFRelease(n);
    CFTypeRef back = c.property(cp, "key");
    EXPECT_EQ(number_value(back), 255);
    if (back) CFRelease(back);

    // A value that does not parse is refused and leaves nothing behind.
    wire::Writer bad;
    bad.u64(cp);
    bad.str("bad");
    const uint8_t junk[] = {'<', 'n', 'o', 0};
    bad.blob(junk);
    EXPECT_EQ(c.request(wire::Op::SetProperty, bad)->code, kBadArgument);

    EXPECT_EQ(sim.trace(), std::vector<std::string>{R"({"service":"ZantraTalvexProcessor","property":"key","value":255})"});
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, OpenCallCloseFollowTheCatalogueAndAreTraced) {
    Simulator sim;
    RawClient c(sim.socket());
    uint64_t cp = c.service(kCoprocessor);
    int32_t code = 0;
    EXPECT_EQ(c.open(cp, 1, &code), 0u);
    EXPECT_EQ(code, kBadArgument);
    uint32_t conn = c.open(cp, 0, &code);
    ASSERT_NE(conn, 0u);

    // readreg gyro 0 10: 3-byte request, 16 bytes asked (what they hold is the bus model's business).
    auto r = c.call(conn, 6, {}, {0x00, 0x00, 0x10}, 0, 16);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output.size(), 16u);
    // A request of the wrong size, an output that is too large, an unknown selector.
    EXPECT_EQ(c.call(conn, 6, {}, {0x00, 0x00}, 0, 16).code, kBadArgument);
    EXPECT_EQ(c.call(conn, 6, {}, {0x00, 0x00, 0x11}, 0, 17).code, kBadArgument);
    EXPECT_EQ(c.call(conn, 41, {}, {}, 0, 0).code, kBadArgument);
    // gpio read: one scalar in, one out; the wrong scalar counts are refused.
    r = c.call(conn, 12, {7}, {}, 1, 0, false);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.scalars.size(), 1u);
    EXPECT_EQ(c.call(conn, 12, {7, 8}, {}, 1, 0, false).code, kBadArgument);
    EXPECT_EQ(c.call(conn, 12, {7}, {}, 0, 0, false).code, kBadArgument);
    // halt: three scalars.
    EXPECT_EQ(c.call(conn, 40, {5000, 0, 96}, {}, 0, 0, false).code, 0);

    wire::Writer close_w;
    close_w.u32(conn);
    EXPECT_EQ(c.request(wire::Op::Close, close_w)->code, 0);
    EXPECT_EQ(c.request(wire::Op::Close, close_w)->code, kBadArgument);
    EXPECT_EQ(c.call(conn, 4, {}, {}, 0, 0, false).code, kBadArgument);   // closed: not a call, not traced

    // Models may trace events of their own; the call and open lines are these.
    std::vector<std::string> trace;
    for (auto &line : sim.trace())
        if (line.find("\"selector\":") != std::string::npos || line.find("\"open\":") != std::string::npos)
            trace.push_back(line);
    ASSERT_EQ(trace.size(), 10u);
    EXPECT_EQ(trace[0], R"({"service":"ZantraTalvexProcessor","open":1,"result":3758097090})");
    EXPECT_EQ(trace[1], R"({"service":"ZantraTalvexProcessor","open":0,"result":0})");
    EXPECT_EQ(trace[2],
              R"({"service":"ZantraTalvexProcessor","selector":6,"scalars":[],"input":"000010","output_size":16,"scalar_output_count":0,"result":0})");
    EXPECT_EQ(trace[4],
              R"({"service":"ZantraTalvexProcessor","selector":6,"scalars":[],"input":"000011","output_size":17,"scalar_output_count":0,"result":3758097090})");
    EXPECT_EQ(trace[6],
              R"({"service":"ZantraTalvexProcessor","selector":12,"scalars":[7],"input":"","output_size":0,"scalar_output_count":1,"result":0})");
    EXPECT_EQ(trace[9],
              R"({"service":"ZantraTalvexProcessor","selector":40,"scalars":[5000,0,96],"input":"","output_size":0,"scalar_output_count":0,"result":0})");
    EXPECT_GE(sim.trace(true).size(), 10u);
    EXPECT_TRUE(sim.trace().empty());
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, StubsAnswerInsteadOfTheModel) {
    Simulator sim;
    RawClient c(sim.socket());
    uint32_t conn = c.open(c.service(kCoprocessor), 0);
    ASSERT_NE(conn, 0u);
    auto ctl = [&](std::vector<std::string> words) {
        auto f = control(c, words);
        EXPECT_TRUE(f && f->code == 0) << words[0];
    };

    // Code, output cut to the caller's capacity.
    ctl({"stub", "--selector", "6", "--output", "0102030405060708090a0b0c0d0e0f101112"});
    auto r = c.call(conn, 6, {}, {0, 0, 4}, 0, 4);
    EXPECT_EQ(r.code, 0);
    EXPECT_EQ(r.output, (std::vector<uint8_t>{1, 2, 3, 4}));
    // Stubs come before the shape check: a malformed call can be answered too.
    r = c.call(conn, 6, {}, {}, 0, 16);
    EXPECT_EQ(r.output.size(), 16u);

    // The newest matching stub wins; --times retires it; an input prefix narrows it.
    ctl({"stub", "--selector", "6", "--input-prefix", "01", "--code", "0xe00002d8", "--times", "2"});
    EXPECT_EQ(c.call(conn, 6, {}, {1, 0, 1}, 0, 1).code, static_cast<int32_t>(0xe00002d8));
    EXPECT_EQ(c.call(conn, 6, {}, {0, 0, 1}, 0, 1).code, 0);   // prefix differs: the older stub
    EXPECT_EQ(c.call(conn, 6, {}, {1, 0, 1}, 0, 1).code, static_cast<int32_t>(0xe00002d8));
    EXPECT_EQ(c.call(conn, 6, {}, {1, 0, 1}, 0, 1).code, 0);   // retired after two

    // Scalar prefix, scalar outputs, explicit output size (zero-padded, cut to capacity).
    ctl({"stub", "--selector", "13", "--scalars", "3,0x21", "--output", "aabb", "--output-size", "8", "--scalar-outputs",
         "9"});
    r = c.call(conn, 13, {3, 0x21}, {}, 0, 128);
    EXPECT_EQ(r.output, (std::vector<uint8_t>{0xaa, 0xbb, 0, 0, 0, 0, 0, 0}));
    EXPECT_TRUE(r.scalars.empty());   // the caller offered no room for scalars
    r = c.call(conn, 13, {3, 0x21}, {}, 0, 4);
    EXPECT_EQ(r.output.size(), 4u);
    r = c.call(conn, 13, {3, 0x00}, {}, 0, 4);   // other scalars: the model answers (a 4-byte property)
    EXPECT_EQ(r.output.size(), 4u);
    EXPECT_NE(r.output, (std::vector<uint8_t>{0xaa, 0xbb, 0, 0}));
    ctl({"stub", "--selector", "12", "--scalar-outputs", "1,2"});
    EXPECT_EQ(c.call(conn, 12, {5}, {}, 1, 0, false).scalars, std::vector<uint64_t>{1});

    // Open stubs, then clearing.
    ctl({"stub", "--open", "--code", "0xe00002bd", "--times", "1"});
    int32_t code = 0;
    EXPECT_EQ(c.open(c.service(kCoprocessor), 0, &code), 0u);
    EXPECT_EQ(code, static_cast<int32_t>(0xe00002bd));
    EXPECT_NE(c.open(c.service(kCoprocessor), 0), 0u);
    ctl({"stub", "--clear"});
    EXPECT_EQ(c.call(conn, 6, {}, {}, 0, 16).code, kBadArgument);

    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, NotifyReachesRegisteredClientsWithEachArgumentKind) {
    Simulator sim;
    RawClient watcher(sim.socket()), bystander(sim.socket());
    uint64_t cp = watcher.service(kCoprocessor);
    uint32_t nid = watcher.add_interest(cp);
    ASSERT_NE(nid, 0u);

    auto expect_event = [&](uint32_t type, wire::ArgKind kind, uint64_t value, std::vector<uint8_t> data) {
        auto e = watcher.next_event();
        ASSERT_TRUE(e);
        EXPECT_EQ(e->seq, 0u);
        wire::Reader r(e->body);
        EXPECT_EQ(r.u32(), nid);
        EXPECT_EQ(r.u64(), cp);
        EXPECT_EQ(r.u32(), type);
        EXPECT_EQ(r.u8(), static_cast<uint8_t>(kind));
        if (kind == wire::ArgKind::Value) {
            EXPECT_EQ(r.u64(), value);
        }
        if (kind == wire::ArgKind::Data) {
            auto b = r.blob();
            EXPECT_EQ(std::vector<uint8_t>(b.begin(), b.end()), data);
        }
        EXPECT_TRUE(r.at_end());
    };
    EXPECT_EQ(sim.control({"notify", "0xe0000130", "--value", "0x10004"}).status, 0);
    expect_event(0xe0000130, wire::ArgKind::Value, 0x10004, {});
    EXPECT_EQ(sim.control({"notify", "0xe3ff8100"}).status, 0);
    expect_event(0xe3ff8100, wire::ArgKind::None, 0, {});
    EXPECT_EQ(sim.control({"notify", "--data", "0100000000000000ff", "0xe3ff8100"}).status, 0);
    expect_event(0xe3ff8100, wire::ArgKind::Data, 0, {1, 0, 0, 0, 0, 0, 0, 0, 0xff});
    // The hub's registrations are not the coprocessor's.
    EXPECT_EQ(sim.control({"notify", "--service", "IOReportHub", "7"}).status, 0);

    // A client that did not register gets nothing; after removal the watcher neither.
    EXPECT_FALSE(bystander.read_frame(std::chrono::milliseconds(200)));
    EXPECT_FALSE(watcher.next_event(std::chrono::milliseconds(200)));
    wire::Writer rm;
    rm.u32(nid);
    EXPECT_EQ(watcher.request(wire::Op::RemoveInterest, rm)->code, 0);
    EXPECT_EQ(sim.control({"notify", "1"}).status, 0);
    EXPECT_FALSE(watcher.next_event(std::chrono::milliseconds(200)));
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, ControlCommandsEditPropertiesAndPublication) {
    Simulator sim;
    RawClient c(sim.socket());
    uint64_t generation = 0;
    uint64_t cp = c.match_class(kCoprocessor, &generation).at(0);
    uint32_t nid = c.add_interest(cp);

    EXPECT_EQ(sim.control({"property", "set", "neg", "-0x10"}).status, 0);
    EXPECT_EQ(sim.control({"property", "set", "name", "gyro 0", "--type", "string"}).status, 0);
    EXPECT_EQ(sim.control({"property", "set", "--type=bool", "on", "true"}).status, 0);
    EXPECT_EQ(sim.control({"property", "set", "blob", "00ff", "--type", "data"}).status, 0);
    CFTypeRef v = c.property(cp, "neg");
    EXPECT_EQ(number_value(v), -16);
    CFRelease(v);
    v = c.property(cp, "name");
    EXPECT_TRUE(v && CFEqual(v, CFSTR("gyro 0")));
    CFRelease(v);
    v = c.property(cp, "on");
    EXPECT_EQ(v, static_cast<CFTypeRef>(kCFBooleanTrue));
    CFRelease(v);
    v = c.property(cp, "blob");
    ASSERT_TRUE(v && CFGetTypeID(v) == CFDataGetTypeID());
    EXPECT_EQ(CFDataGetLength(static_cast<CFDataRef>(v)), 2);
    CFRelease(v);

    EXPECT_EQ(sim.control({"property", "delete", "talvex-state"}).status, 0);
    int32_t code = 0;
    EXPECT_EQ(c.property(cp, "talvex-state", &code), nullptr);
    EXPECT_EQ(code, static_cast<int32_t>(kIOReturnNotFound));
    // Control-command edits are not client writes: the trace stays empty.
    EXPECT_TRUE(sim.trace().empty());

    // Unpublishing hides the service, changes the generation and tells the watcher.
    EXPECT_EQ(sim.control({"service", "unpublish", kCoprocessor}).status, 0);
    uint64_t after = 0;
    EXPECT_TRUE(c.match_class(kCoprocessor, &after).empty());
    EXPECT_NE(after, generation);
    auto e = c.next_event();
    ASSERT_TRUE(e);
    wire::Reader er(e->body);
    EXPECT_EQ(er.u32(), nid);
    EXPECT_EQ(er.u64(), cp);
    EXPECT_EQ(er.u32(), kIOMessageServiceIsTerminated);
    EXPECT_EQ(c.open(cp, 0, &code), 0u);
    EXPECT_EQ(code, static_cast<int32_t>(kIOReturnNoDevice));
    // Unpublishing twice changes nothing.
    EXPECT_EQ(sim.control({"service", "unpublish", kCoprocessor}).status, 0);
    wire::Writer none;
    auto gen_reply = c.request(wire::Op::Generation, none);
    ASSERT_TRUE(gen_reply);
    wire::Reader gr(gen_reply->body);
    EXPECT_EQ(gr.u64(), after);

    EXPECT_EQ(sim.control({"service", "publish", kCoprocessor}).status, 0);
    uint64_t again = 0;
    EXPECT_EQ(c.match_class(kCoprocessor, &again), std::vector<uint64_t>{cp});
    EXPECT_NE(again, after);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimProtocol, HubMapsAReadOnlyBuffer) {
    Simulator sim;
    RawClient c(sim.socket());
    uint32_t hub = c.open(c.service("IOReportHub"), 0);
    ASSERT_NE(hub, 0u);
    EXPECT_EQ(c.call(hub, 0, {}, {}, 0, 0, false).code, 0);

    wire::Writer w;
    w.u32(hub);
    w.u32(0);   // memory type
    w.u32(1);   // map anywhere
    auto f = c.request(wire::Op::Map, w);
    ASSERT_TRUE(f);
    ASSERT_EQ(f->code, 0);
    wire::Reader r(f->body);
    uint64_t size = r.u64();
    ASSERT_GE(f->fd, 0);
    EXPECT_GT(size, 0u);
    void *p = mmap(nullptr, size, PROT_READ, MAP_SHARED, f->fd, 0);
    ASSERT_NE(p, MAP_FAILED);
    EXPECT_EQ(static_cast<const uint8_t *>(p)[size - 1], 0);
    munmap(p, size);
    EXPECT_EQ(mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, f->fd, 0), MAP_FAILED);
    close(f->fd);

    // No such memory type; no memory at all on the coprocessor's client.
    wire::Writer other;
    other.u32(hub);
    other.u32(5);
    other.u32(1);
    f = c.request(wire::Op::Map, other);
    EXPECT_EQ(f->code, kBadArgument);
    EXPECT_LT(f->fd, 0);
    uint32_t cp = c.open(c.service(kCoprocessor), 0);
    wire::Writer cpw;
    cpw.u32(cp);
    cpw.u32(0);
    cpw.u32(1);
    EXPECT_EQ(c.request(wire::Op::Map, cpw)->code, kBadArgument);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}
