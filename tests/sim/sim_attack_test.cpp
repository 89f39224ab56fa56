// Hostile and broken clients: whatever they do, the simulator keeps serving
// everyone else and still shuts down cleanly (under the sanitizers, with no leak).
#include <fcntl.h>
#include <sys/wait.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <memory>
#include <thread>

#include "harness.h"
#include "talvex_driver.h"
#include "wire_peer.h"

using namespace talvex;
using namespace talvex::test;

namespace {

constexpr int32_t kBadArgument = static_cast<int32_t>(0xe00002c2);

// A well-behaved client is served promptly.
void expect_served(const Simulator &sim) {
    RawClient good(sim.socket());
    ASSERT_TRUE(good.connected());
    wire::Writer none;
    auto f = good.request(wire::Op::Generation, none);
    ASSERT_TRUE(f);
    EXPECT_EQ(f->code, 0);
    EXPECT_NE(good.service("ZantraTalvexProcessor"), 0u);
}

// True when the simulator closed the connection (end of stream) within the timeout.
bool closed_by_peer(RawClient &c) {
    pollfd p{c.fd(), POLLIN, 0};
    if (poll(&p, 1, 5000) <= 0) return false;
    char b;
    return recv(c.fd(), &b, 1, 0) == 0;
}

std::vector<uint8_t> frame_header(uint32_t len, uint16_t op, uint32_t seq) {
    wire::Writer w;
    w.u32(len);
    w.u16(op);
    w.u16(0);
    w.u32(seq);
    return w.take();
}

}  // namespace

TEST(SimAttack, BrokenFramesAndBodiesHarmOnlyThatClient) {
    Simulator sim;
    RawClient bystander(sim.socket());
    uint32_t conn = bystander.open(bystander.service("ZantraTalvexProcessor"), 0);
    ASSERT_NE(conn, 0u);

    // A length just over kMaxFrame, and one shorter than a request header.
    const uint8_t tiny[] = {4, 0, 0, 0, 1, 0, 0, 0};
    const std::vector<uint8_t> over = frame_header(wire::kMaxFrame + 1, 1, 1);
    for (std::span<const uint8_t> frame : {std::span<const uint8_t>(over), std::span<const uint8_t>(tiny)}) {
        RawClient c(sim.socket());
        ASSERT_TRUE(c.send_bytes(frame));
        EXPECT_TRUE(closed_by_peer(c)) << "frame of " << frame.size() << " bytes";
    }
    {   // a truncated frame, then disconnect
        RawClient c(sim.socket());
        auto frame = wire::make_request(wire::Op::Generation, 1, {});
        c.send_bytes(std::span(frame).first(6));
    }
    {   // a frame that arrives in single bytes is still one frame
        RawClient c(sim.socket());
        wire::Writer w;
        w.u64(c.service("ZantraTalvexProcessor"));
        auto frame = wire::make_request(wire::Op::EntryInfo, 77, w.data());
        for (uint8_t b : frame) c.send_bytes(std::span(&b, 1));
        auto f = c.read_frame();
        ASSERT_TRUE(f);
        EXPECT_EQ(f->seq, 77u);
        EXPECT_EQ(f->code, 0);
    }
    // The bystander's user client is still open and working.
    EXPECT_EQ(bystander.call(conn, kTalvexMethodPing, {}, {}, 0, 0, false).code, 0);

    // Malformed bodies get error replies and write nothing.
    sim.trace(true);   // (clears the bystander's open)
    RawClient c(sim.socket());
    uint64_t cp = c.service("ZantraTalvexProcessor");
    // Every op with an empty (too short) body, and with one byte too many.
    for (uint16_t op = 1; op <= 14; ++op) {
        if (op == static_cast<uint16_t>(wire::Op::Generation)) continue;   // its body is empty
        auto f = c.request(static_cast<wire::Op>(op), std::span<const uint8_t>());
        ASSERT_TRUE(f) << op;
        EXPECT_EQ(f->code, kBadArgument) << op;
    }
    wire::Writer extra;
    extra.u64(cp);
    extra.u8(0);
    EXPECT_EQ(c.request(wire::Op::EntryInfo, extra)->code, kBadArgument);
    // Unknown ops and replies sent as requests are unsupported, answered with the same seq.
    EXPECT_EQ(c.request(static_cast<wire::Op>(99), std::span<const uint8_t>())->code,
              static_cast<int32_t>(kIOReturnUnsupported));
    // Well-formed bodies that say impossible things: a newer protocol, an entry
    // that does not exist, a match that is no dictionary, a value that does not parse.
    wire::Writer hello;
    hello.u32(wire::kProtocolVersion + 1);
    hello.u32(1);
    EXPECT_EQ(c.request(wire::Op::Hello, hello)->code, static_cast<int32_t>(kIOReturnUnsupported));
    wire::Writer bogus;
    bogus.u64(12345);
    EXPECT_EQ(c.request(wire::Op::EntryInfo, bogus)->code, kBadArgument);
    int32_t code = 0;
    c.match(reinterpret_cast<CFDictionaryRef>(CFSTR("IOProviderClass")), nullptr, &code);
    EXPECT_EQ(code, kBadArgument);
    wire::Writer bad_value;
    bad_value.u64(cp);
    bad_value.str("bad");
    const uint8_t junk[] = {'<', 'n', 'o', 0};
    bad_value.blob(junk);
    EXPECT_EQ(c.request(wire::Op::SetProperty, bad_value)->code, kBadArgument);
    EXPECT_TRUE(sim.trace().empty());
    // A connection or notification that is not this client's.
    RawClient other(sim.socket());
    uint32_t theirs = other.open(cp, 0);
    ASSERT_NE(theirs, 0u);
    EXPECT_EQ(c.call(theirs, kTalvexMethodPing, {}, {}, 0, 0, false).code, kBadArgument);
    EXPECT_EQ(other.call(theirs, kTalvexMethodPing, {}, {}, 0, 0, false).code, 0);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimAttack, ClientsThatDoNotReadCannotStallOthers) {
    Simulator sim;
    // One client pipelines requests and never reads a reply: it is paused, not served ahead of others.
    RawClient pipeliner(sim.socket());
    fcntl(pipeliner.fd(), F_SETFL, O_NONBLOCK);
    uint64_t cp = pipeliner.service("ZantraTalvexProcessor");
    wire::Writer all;
    all.u64(cp);
    auto request = wire::make_request(wire::Op::GetProperties, 1, all.data());
    std::vector<uint8_t> batch;
    for (int i = 0; i < 256; ++i) batch.insert(batch.end(), request.begin(), request.end());
    size_t sent_total = 0;
    for (int round = 0; round < 2000; ++round) {
        ssize_t n = send(pipeliner.fd(), batch.data(), batch.size(), MSG_NOSIGNAL);
        if (n <= 0) break;
        sent_total += static_cast<size_t>(n);
    }
    EXPECT_GT(sent_total, 0u);
    expect_served(sim);

    // Another registers for events and never reads them; a flood of large
    // events disconnects it once too much is queued, and nobody else notices.
    RawClient sleeper(sim.socket());
    ASSERT_NE(sleeper.add_interest(cp), 0u);
    RawClient driver(sim.socket());
    std::string hex(2u << 20, 'a');   // 1 MiB of data per event
    bool dropped = false;
    for (int i = 0; i < 100 && !dropped; ++i) {
        auto f = control(driver, {"notify", "1", "--data", hex});
        ASSERT_TRUE(f);
        ASSERT_EQ(f->code, 0);
        if (i > 30) {
            pollfd p{sleeper.fd(), POLLIN, 0};
            dropped = poll(&p, 1, 0) > 0 && (p.revents & (POLLHUP | POLLERR));
        }
    }
    EXPECT_TRUE(dropped);
    expect_served(sim);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
    EXPECT_NE(sim.log().find("does not read"), std::string::npos) << sim.log();
}

// Also the only check that pipelined requests are answered in order.
TEST(SimAttack, LargePipelinedRepliesAllArriveAfterAHalfClose) {
    Simulator sim;
    // 256 KiB property, asked for 24 times in one go: 6 MiB of replies, far
    // beyond what the simulator queues before it pauses the client.
    RawClient c(sim.socket());
    auto set = control(c, {"property", "set", "big", std::string(512u << 10, 'c'), "--type", "data"});
    ASSERT_TRUE(set && set->code == 0);
    uint64_t cp = c.service("ZantraTalvexProcessor");
    wire::Writer w;
    w.u64(cp);
    w.str("big");
    std::vector<uint8_t> batch;
    for (uint32_t seq = 1; seq <= 24; ++seq) {
        auto f = wire::make_request(wire::Op::GetProperty, seq, w.data());
        batch.insert(batch.end(), f.begin(), f.end());
    }
    ASSERT_TRUE(c.send_bytes(batch));
    shutdown(c.fd(), SHUT_WR);
    for (uint32_t seq = 1; seq <= 24; ++seq) {
        auto f = c.read_frame();
        ASSERT_TRUE(f) << seq;
        EXPECT_EQ(f->seq, seq);
        EXPECT_EQ(f->code, 0);
        EXPECT_GT(f->body.size(), 256u << 10);
    }
    EXPECT_FALSE(c.read_frame(std::chrono::seconds(5)));   // then the simulator closes its end
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

// --- budgets: whatever clients take, the simulator stays within bounds and
// still answers everyone else.
namespace {

constexpr int32_t kNoResources = static_cast<int32_t>(0xe00002be);
constexpr size_t kMiB = size_t{1} << 20;

// The simulator's peak resident memory, in MiB.
size_t peak_mib(const Simulator &sim) {
    std::ifstream status("/proc/" + std::to_string(sim.pid()) + "/status");
    for (std::string line; std::getline(status, line);)
        if (line.rfind("VmHWM:", 0) == 0) return std::stoul(line.substr(6)) / 1024;
    ADD_FAILURE() << "no VmHWM for " << sim.pid();
    return 0;
}

// Under the sanitizers memory is the sanitizers' business (shadow, quarantine).
#if defined(__SANITIZE_ADDRESS__)
constexpr bool kSanitized = true;
#else
constexpr bool kSanitized = false;
#endif

// With --budget-memory 64 MiB the simulator keeps its own figures under it;
// what comes on top (code, trace, the registry) stays well under 32 MiB.
void expect_within_budget(const Simulator &sim) {
    if (!kSanitized) {
        EXPECT_LT(peak_mib(sim), 64u + 32u);
    }
}

const std::vector<std::string> kSmallMemory{"--budget-memory", std::to_string(64 * kMiB)};
// 256 descriptors: 36 in reserve, floors of 4 for 27 clients, a pool of 110,
// at most 31 per client.
const std::vector<std::string> kFewDescriptors{"--budget-descriptors", "256"};

// Opens a report hub connection and subscribes on it until refused; how many it took.
int subscribe_until_refused(RawClient &c) {
    uint32_t conn = c.open(c.service("IOReportHub"), 0);
    EXPECT_NE(conn, 0u);
    EXPECT_EQ(c.call(conn, kIOReportUserClientOpen, {}, {}, 0, 0, false).code, 0);
    std::vector<uint8_t> nothing(8 + 24, 0);   // one interest that names no channel: a one-page buffer
    nothing[0] = 1;
    for (int n = 0;; ++n) {
        auto r = c.call(conn, kIOReportUserClientConfigureInterests, {}, nothing, 1, 0, false);
        if (r.code != 0) {
            EXPECT_EQ(r.code, kNoResources);
            return n;
        }
    }
}

std::string refusal(const char *service, const char *what, const char *scope, size_t limit) {
    return std::string(R"({"service":)") + service + R"(,"refused":"budget","what":")" + what + R"(","scope":")" +
           scope + R"(","limit":)" + std::to_string(limit) + "}";
}

bool traced(const Simulator &sim, const std::string &line) {
    auto t = sim.trace();
    return std::find(t.begin(), t.end(), line) != t.end();
}

}  // namespace

TEST(SimAttack, SubscriptionsCannotStarveOthersOfDescriptors) {
    Simulator sim(kFewDescriptors);
    std::vector<std::unique_ptr<RawClient>> attackers;
    std::vector<int> taken;
    for (int i = 0; i < 5; ++i) {
        attackers.push_back(std::make_unique<RawClient>(sim.socket()));
        taken.push_back(subscribe_until_refused(*attackers.back()));
    }
    // 30 each besides the socket, until the pool runs out: then the floor's 3 and the last 2 of the pool.
    EXPECT_EQ(taken, (std::vector<int>{30, 30, 30, 30, 5}));
    EXPECT_TRUE(traced(sim, refusal(R"("IOReportHub")", "descriptors", "client", 31)));
    EXPECT_TRUE(traced(sim, refusal(R"("IOReportHub")", "descriptors", "overall", 220)));
    // Everyone else carries on: the tool, and a new client's subscriptions within its floor.
    auto ping = sim.tool({"ping"});
    EXPECT_EQ(ping.status, 0) << ping.err;
    RawClient late(sim.socket());
    EXPECT_EQ(subscribe_until_refused(late), 3);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimAttack, AFullSimulatorAnswersNewClientsWithOneRefusal) {
    Simulator sim(kFewDescriptors);
    wire::Writer none;
    auto generation = wire::make_request(wire::Op::Generation, 5, none.data());
    std::vector<std::unique_ptr<RawClient>> admitted;
    std::optional<Frame> refused;
    while (!refused && admitted.size() < 40) {
        auto c = std::make_unique<RawClient>(sim.socket());
        c->send_bytes(generation);   // a refused client may find the connection closed already
        auto f = c->read_frame(std::chrono::seconds(5));
        ASSERT_TRUE(f);
        if (f->seq == 5) {
            admitted.push_back(std::move(c));
            continue;
        }
        refused = f;
        EXPECT_TRUE(closed_by_peer(*c));   // and nothing more
    }
    ASSERT_TRUE(refused);
    EXPECT_EQ(admitted.size(), 27u);
    EXPECT_EQ(refused->op, static_cast<uint16_t>(wire::Op::Hello) | wire::kReplyBit);
    EXPECT_EQ(refused->seq, 0u);
    EXPECT_EQ(refused->code, kNoResources);
    EXPECT_TRUE(refused->body.empty());
    // The tool finds no driver. (The words for it: reach_test.cpp, tests/cases/dispatch.case.)
    auto ping = sim.tool({"ping"});
    EXPECT_EQ(ping.status, 1);
    // Room again once a client leaves.
    admitted.pop_back();
    bool served = false;
    for (int i = 0; i < 50 && !served; ++i) {
        RawClient c(sim.socket());
        c.send_bytes(generation);
        auto f = c.read_frame();
        served = f && f->seq == 5;
        if (!served) std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    EXPECT_TRUE(served);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
    EXPECT_NE(sim.log().find("refusing connections: 27 clients already (at most 27)"), std::string::npos) << sim.log();
}

TEST(SimAttack, IncompleteLargeFramesStayWithinTheBufferBudget) {
    Simulator sim(kSmallMemory);
    // The first one fits the pool (18 MiB beyond the floors) and arrives whole but for a byte.
    std::vector<uint8_t> frame = frame_header(wire::kMaxFrame, 1, 1);
    frame.resize(4 + wire::kMaxFrame - 1);
    RawClient first(sim.socket());
    ASSERT_TRUE(first.send_bytes(frame));
    // The others are turned away when their length arrives.
    for (int i = 0; i < 7; ++i) {
        RawClient c(sim.socket());
        c.send_bytes(std::span(frame).first(12));
        EXPECT_TRUE(closed_by_peer(c)) << i;
    }
    expect_served(sim);
    expect_within_budget(sim);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
    EXPECT_NE(sim.log().find("a frame of 16777216 bytes would exceed the simulator's buffer budget (25165824 bytes)"),
              std::string::npos)
        << sim.log();
}

// A client that stops sending just after a full read's worth of a frame: the
// read after it finds nothing and must not wait for more.
TEST(SimAttack, AFrameStalledAfterAFullReadHoldsUpNobody) {
    Simulator sim;
    RawClient staller(sim.socket());
    ASSERT_TRUE(staller.connected());
    std::vector<uint8_t> part = frame_header(200'000, 1, 1);
    part.resize(64u << 10);   // what the simulator takes in one read
    // Stopped meanwhile, the simulator finds all of it queued when it goes on.
    ASSERT_EQ(kill(sim.pid(), SIGSTOP), 0);
    int st = 0;
    ASSERT_EQ(waitpid(sim.pid(), &st, WUNTRACED), sim.pid());
    ASSERT_TRUE(WIFSTOPPED(st));
    bool sent = staller.send_bytes(part);
    ASSERT_EQ(kill(sim.pid(), SIGCONT), 0);
    ASSERT_TRUE(sent);
    expect_served(sim);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}

TEST(SimAttack, ClientSetPropertiesAreBoundedPerValueClientAndOverall) {
    Simulator sim(kSmallMemory);
    // Values of 700 KB serialise to about 934 KB: two fit a client's 2 MiB, four the overall 4 MiB.
    auto set = [&](RawClient &c, const std::string &key, size_t size) {
        std::vector<uint8_t> bytes(size, 0x5a);
        CFDataRef value = CFDataCreate(nullptr, bytes.data(), static_cast<CFIndex>(size));
        CFDataRef serialised = IOCFSerialize(value, 0);
        wire::Writer w;
        w.u64(c.service("ZantraTalvexProcessor"));
        w.str(key);
        w.blob({CFDataGetBytePtr(serialised), static_cast<size_t>(CFDataGetLength(serialised))});
        CFRelease(serialised);
        CFRelease(value);
        auto f = c.request(wire::Op::SetProperty, w);
        return f ? f->code : -1;
    };
    auto a = std::make_unique<RawClient>(sim.socket());
    RawClient b(sim.socket()), c(sim.socket());
    EXPECT_EQ(set(*a, "huge", 2 * kMiB), kNoResources);
    EXPECT_EQ(set(*a, "a1", 700'000), 0);
    EXPECT_EQ(set(*a, "a2", 700'000), 0);
    EXPECT_EQ(set(*a, "a3", 700'000), kNoResources);
    EXPECT_EQ(set(*a, "a2", 600'000), 0);   // replacing a value gives back the old one's bytes
    EXPECT_EQ(set(b, "b1", 700'000), 0);
    EXPECT_EQ(set(b, "b2", 700'000), 0);
    EXPECT_EQ(set(c, "c1", 700'000), kNoResources);
    // A client's properties outlive it, and still count.
    a.reset();
    int32_t code = -1;
    CFTypeRef kept = c.property(c.service("ZantraTalvexProcessor"), "a1", &code);
    EXPECT_EQ(code, 0);
    if (kept) CFRelease(kept);
    EXPECT_EQ(set(c, "c1", 700'000), kNoResources);
    ASSERT_EQ(sim.control({"property", "delete", "a1"}).status, 0);
    EXPECT_EQ(set(c, "c1", 700'000), 0);
    auto big = control(c, {"property", "set", "big", std::string(2 * kMiB, 'a'), "--type", "data"});
    ASSERT_TRUE(big);
    EXPECT_EQ(big->code, 1);
    wire::Reader texts(big->body);
    texts.str();
    EXPECT_NE(texts.str().find("exceed the value property budget (1048576 bytes)"), std::string::npos);
    // The driver's whole property table still fits a reply.
    wire::Writer all;
    all.u64(c.service("ZantraTalvexProcessor"));
    EXPECT_EQ(c.request(wire::Op::GetProperties, all)->code, 0);
    for (auto &[scope, limit] : std::vector<std::pair<const char *, size_t>>{
             {"value", 1048576}, {"client", 2097152}, {"overall", 4194304}})
        EXPECT_TRUE(traced(sim, refusal(R"("ZantraTalvexProcessor")", "property bytes", scope, limit))) << scope;
    expect_served(sim);
    expect_within_budget(sim);
    EXPECT_EQ(sim.stop(), 0) << sim.log();
}
