// listclients, listsensors and sensorinfo end to end: argument checks, the
// live model's listings, and the exact-format cases from stubbed replies.
#include "tool_support.h"

#include <regex>
#include <string>

namespace {

using namespace talvex::test;

const char kHeader[] = "name                               polling   report threshold timeLimit\n";

std::string client(uint32_t count, const std::string &name, int32_t polling, int32_t report, int32_t threshold,
                   int32_t limit) {
    return Hex().u32(count).text(name, 69).i32(polling).i32(report).i32(threshold).i32(limit).str();
}

// A stubbed client-list reply for one index.
void stub_client(const Simulator &sim, uint32_t index, const std::string &reply) {
    stub_once(sim, kTalvexMethodClientList, reply, {"--input-prefix", Hex().u8(1).u32(index).str()});
}

TEST(ListClients, LiveListingSkipsEmptySlots) {
    Simulator sim;
    Outcome o = run(sim, {"listclients", "accel"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    EXPECT_EQ(o.r.out, std::string(kHeader) +
                           "accel                           :    10000   100000        0     2000\n"
                           "motiond.activity                :    20000  1000000        0        0\n"
                           "orientationd                    :    40000   200000       35        0\n"
                           "stepcounter                     :    20000  5000000        0        0\n"
                           "wake-gesture                    :    10000   100000      120     2000\n");
    // Summary first, then every slot, the empty one included.
    ASSERT_EQ(o.calls.size(), 6u);
    EXPECT_EQ(o.calls[0].input, "01ffffffff");
    EXPECT_EQ(o.calls[0].output_size, 89u);
    EXPECT_EQ(o.calls[5].input, "0104000000");

    // The summary's polling follows the device's sample interval.
    ASSERT_EQ(sim.tool({"set", "1", "0", "4e20"}).status, 0);
    EXPECT_EQ(lines(run(sim, {"listclients", "accel"}).r.out)[1],
              "accel                           :    20000   100000        0     2000");
}

TEST(ListClients, CountIsReadFromEveryReply) {
    Simulator sim;
    // A summary of 0 clients: the header and the summary row only, even unnamed.
    stub_client(sim, 0xffffffff, client(0, "", -1, 0, 0, 0));
    Outcome o = run(sim, {"listclients", "accel"});
    EXPECT_EQ(o.r.out, std::string(kHeader) + std::string(32, ' ') + ":       -1        0        0        0\n");
    EXPECT_EQ(o.calls.size(), 1u);

    // The first client says there is only one: the loop ends there.
    stub_client(sim, 0xffffffff, client(3, "accel", 1, 2, 3, 4));
    stub_client(sim, 0, client(1, "one", 5, 6, 7, 8));
    o = run(sim, {"listclients", "accel"});
    EXPECT_EQ(o.r.out, std::string(kHeader) +
                           "accel                           :        1        2        3        4\n"
                           "one                             :        5        6        7        8\n");
    EXPECT_EQ(o.calls.size(), 2u);

    // A larger count extends the loop; a failure ends it with two reports.
    stub_client(sim, 0xffffffff, client(1, "accel", 1, 2, 3, 4));
    stub_client(sim, 0, client(3, "", 0, 0, 0, 0));
    stub_client(sim, 1, client(3, "third", 9, 9, 9, 9));
    stub_code(sim, kTalvexMethodClientList, "0xe00002bc", {"--input-prefix", Hex().u8(1).u32(2).str()});
    o = run(sim, {"listclients", "accel"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_EQ(o.r.out, std::string(kHeader) +
                           "accel                           :        1        2        3        4\n"
                           "third                           :        9        9        9        9\n");
    EXPECT_EQ(o.err, from_operation(kGeneralError) + coded(kGeneralError, "listings.cpp"));
    EXPECT_EQ(o.calls.size(), 4u);
}

TEST(ListSensors, ListsTheDevicesThatAnswerInTableOrder) {
    Simulator sim;
    Outcome o = run(sim, {"listsensors", "ignored"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out, "gyro\naccel\ncompass\npressure\ntalvex\ncorvel\nprox\n");
    ASSERT_EQ(o.calls.size(), 7u);
    const uint64_t order[] = {0, 1, 2, 4, 3, 5, 6};
    for (size_t i = 0; i < 7; ++i) {
        EXPECT_EQ(o.calls[i].scalars, (std::vector<uint64_t>{order[i], 0}));
        EXPECT_EQ(o.calls[i].output_size, 4u);
    }

    stub_code(sim, kTalvexMethodGetProperty, "0xe00002c0", {"--scalars", "2,0"});
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002c0", {"--scalars", "5,0"});
    o = run(sim, {"listsensors"});
    EXPECT_EQ(o.r.out, "gyro\naccel\npressure\ntalvex\nprox\n");
    EXPECT_EQ(o.r.err, "");

    // Nothing answers: nothing listed, still a success.
    control(sim,
            {"stub", "--selector", std::to_string(kTalvexMethodGetProperty), "--code", "0xe00002c0", "--times", "7"});
    o = run(sim, {"listsensors"});
    EXPECT_EQ(o.r.status, 0);
    EXPECT_EQ(o.r.out + o.r.err, "");
}

TEST(SensorInfo, LiveAccelerometerPrintsEveryLine) {
    Simulator sim;
    Outcome o = run(sim, {"sensorinfo", "accel"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    EXPECT_EQ(o.r.out,
              "Device      : ZMA-6031 accelerometer Zantra C1 fw 2.4.1\n"
              "Sample intvl: 10000 us, decimation=1\n"
              "Sensor mode : normal\n"
              "Cal matrix  : 1.005157 0.004761 -0.000885 | -0.004517 0.994720 0.001831 | 0.000671 -0.001999 1.007126\n"
              "Cal offset  : -12 7 31\n"
              "Orient. m.  : 0 1 0, -1 0 0, 0 0 1\n"
              "SampleRates : 10 25 50 100 200 400 800 1600 \n"
              "StartupTime : 3000\n"
              "Int.Calib.  : 9986 (combo=9979, accel-only=10004) [at 100Hz]\n"
              "fsr         : 8\n"
              "SupportedFSR: 2 4 8 16 \n"
              "bw          : 100\n"
              "SupportedBW : 25 50 100 200 400 800 \n");
    // Properties in order, with their sizes.
    const std::pair<uint64_t, uint64_t> asked[] = {{0, 4},   {36, 4}, {10, 4}, {13, 4}, {15, 32}, {16, 32},
                                                   {11, 36}, {26, 12}, {24, 9}, {33, 128}, {45, 4}, {25, 12},
                                                   {6, 4},   {56, 128}, {4, 4}, {57, 128}};
    ASSERT_EQ(o.calls.size(), std::size(asked));
    for (size_t i = 0; i < std::size(asked); ++i) {
        EXPECT_EQ(o.calls[i].scalars, (std::vector<uint64_t>{1, asked[i].first})) << i;
        EXPECT_EQ(o.calls[i].output_size, asked[i].second) << i;
    }

    // A setting changed with `set` shows; the gyroscope has its own two lines.
    ASSERT_EQ(sim.tool({"set", "0", "6", "7d0"}).status, 0);
    ASSERT_EQ(sim.tool({"set", "0", "a", "1"}).status, 0);
    std::string gyro = run(sim, {"sensorinfo", "gyro"}).r.out;
    EXPECT_NE(gyro.find("Sensor mode : raw\n"), std::string::npos) << gyro;
    EXPECT_TRUE(gyro.ends_with("range       : 2000\nSupportedRanges: 125 250 500 1000 2000 \n")) << gyro;
}

TEST(SensorInfo, CompassStopsAfterTheCommonLinesWithoutAStartupTime) {
    Simulator sim;
    Outcome o = run(sim, {"sensorinfo", "compass"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    auto got = lines(o.r.out);
    ASSERT_EQ(got.size(), 9u) << o.r.out;
    EXPECT_EQ(got[7], "StartupTime : 0");   // the part has none
    EXPECT_EQ(got[8], "Int.Calib.  : 10041 [at 100Hz]");
    EXPECT_EQ(o.calls.size(), 12u);
}

// Stubs one property of the accelerometer.
void stub_property(const Simulator &sim, uint32_t property, const std::string &reply) {
    stub_once(sim, kTalvexMethodGetProperty, reply, {"--scalars", "1," + std::to_string(property)});
}

TEST(SensorInfo, EdgeCasesOfTheReplies) {
    Simulator sim;
    // Raw and factory both set, a 32-byte text without terminator, the
    // fixed-point edges, an empty rate list, an 8-byte internal calibration
    // (its third number is what the buffer held), and an unsupported code
    // from another subsystem for the start-up time.
    stub_property(sim, 10, Hex().u32(1).str());
    stub_property(sim, 13, Hex().u32(1).str());
    stub_property(sim, 15, Hex().text(std::string(32, 'P'), 32).str());
    stub_property(sim, 11, Hex().i32(65536).i32(-32768).i32(1).i32(0).i32(0).i32(0).i32(0).i32(0).i32(-65536).str());
    stub_property(sim, 24, "7f80ff0001020304fe");
    stub_once(sim, kTalvexMethodGetProperty, "", {"--scalars", "1,33"});
    stub_code(sim, kTalvexMethodGetProperty, "0x000002c7", {"--scalars", "1,45"});
    stub_property(sim, 25, Hex().i32(11).i32(-12).str());
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002c7", {"--scalars", "1,6"});
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002c7", {"--scalars", "1,56"});
    Outcome o = run(sim, {"sensorinfo", "accel"});
    EXPECT_EQ(o.r.status, 0) << o.r.err;
    EXPECT_EQ(o.r.err, "");
    EXPECT_EQ(o.r.out, "Device      : " + std::string(32, 'P') +
                           " Zantra C1 fw 2.4.1\n"
                           "Sample intvl: 10000 us, decimation=1\n"
                           "Sensor mode : raw\n"
                           "Cal matrix  : 1.000000 -0.500000 0.000015 | 0.000000 0.000000 0.000000 | 0.000000 0.000000 "
                           "-1.000000\n"
                           "Cal offset  : -12 7 31\n"
                           "Orient. m.  : 127 -128 -1, 0 1 2, 3 4 -2\n"
                           "SampleRates : \n"
                           "StartupTime : 0\n"
                           "Int.Calib.  : 11 (combo=-12, accel-only=0) [at 100Hz]\n"
                           "fsr         : error e00002c7\n"
                           "SupportedFSR: \n"
                           "bw          : 100\n"
                           "SupportedBW : 25 50 100 200 400 800 \n");

    // Four bytes of internal calibration: the short line; factory alone.
    stub_property(sim, 13, Hex().u32(5).str());
    stub_property(sim, 25, Hex().i32(9990).str());
    std::string out = run(sim, {"sensorinfo", "accel"}).r.out;
    EXPECT_NE(out.find("Sensor mode : factory\n"), std::string::npos) << out;
    EXPECT_NE(out.find("Int.Calib.  : 9990 [at 100Hz]\n"), std::string::npos) << out;
}

TEST(SensorInfo, FailedCommonReadsPrintOnlyDiagnostics) {
    Simulator sim;
    // Through the operation: its report and line, then the command's with the text.
    stub_code(sim, kTalvexMethodGetProperty, "0xe00002bc", {"--scalars", "1,24"});
    Outcome o = run(sim, {"sensorinfo", "accel"});
    EXPECT_EQ(o.r.status, 1);
    EXPECT_TRUE(std::regex_match(o.r.out, std::regex("TalvexGetProperty\\(handle=0x[0-9a-f]+,dev=1,prop=18,size=9\\) "
                                                     "-> e00002bc\n")))
        << o.r.out;
    EXPECT_EQ(o.err, from_operation(kGeneralError) +
                         coded(kGeneralError, "sensorinfo.cpp", "(iokit/common) general error"));
    EXPECT_EQ(o.calls.size(), 9u);

    // Read directly: one report; unsupported is excused only for the start-up time.
    for (const char *property : {"45", "25"}) {
        stub_code(sim, kTalvexMethodGetProperty, property == std::string("45") ? "0xe00002bc" : "0xe00002c7",
                  {"--scalars", std::string("1,") + property});
        o = run(sim, {"sensorinfo", "accel"});
        EXPECT_EQ(o.r.status, 1) << property;
        EXPECT_EQ(o.r.out, "") << property;
        const std::string &text = property == std::string("45") ? kGeneralError : kUnsupported;
        EXPECT_EQ(o.err, coded(text, "sensorinfo.cpp", text.substr(0, text.find(" (0x")))) << property;
    }
}

}  // namespace
