// Device table, hex dump and number parsing, in-process.
#include "talvexctl.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

std::string dump(const std::vector<uint8_t> &bytes) {
    testing::internal::CaptureStdout();
    TalvexHexDump(bytes.data(), static_cast<uint32_t>(bytes.size()));
    return testing::internal::GetCapturedStdout();
}

std::vector<uint8_t> range(int first, int count) {
    std::vector<uint8_t> v;
    for (int i = 0; i < count; ++i) v.push_back(static_cast<uint8_t>(first + i));
    return v;
}

TEST(HexDump, FullLineHasSeparatorColumnsAndCharacters) {
    EXPECT_EQ(dump(range(0x41, 16)),
              "00000000: 41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50  | ABCDEFGH IJKLMNOP\n");
}

TEST(HexDump, ShortLinesArePaddedOnTheHexSideOnly) {
    // One blank byte: fifteen empty positions keep the separator in its column.
    EXPECT_EQ(dump({0x20}), "00000000: 20" + std::string(3 * 7 + 1 + 1 + 3 * 8, ' ') + " | .\n");

    // Seventeen bytes: a full line, then one byte at offset 0x10.
    std::string two = dump(range(0x30, 17));
    EXPECT_EQ(two,
              "00000000: 30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  | 01234567 89:;<=>?\n"
              "00000010: 40" +
                  std::string(3 * 7 + 1 + 1 + 3 * 8, ' ') + " | @\n");

    // Nine bytes: the extra blank after the eighth byte on both sides.
    EXPECT_EQ(dump(range(0x61, 9)),
              "00000000: 61 62 63 64 65 66 67 68  69" + std::string(3 * 7 + 1, ' ') + " | abcdefgh i\n");

    // Exactly eight: the blank after the eighth character is still written.
    EXPECT_EQ(dump(range(0x61, 8)), "00000000: 61 62 63 64 65 66 67 68  " + std::string(3 * 8, ' ') +
                                        " | abcdefgh \n");
}

TEST(HexDump, OnlyGraphicAsciiPrintsAsItself) {
    std::string out = dump({0x00, 0x1f, 0x20, 0x21, 0x7e, 0x7f, 0x80, 0xff});
    EXPECT_EQ(out, "00000000: 00 1f 20 21 7e 7f 80 ff  " + std::string(3 * 8, ' ') + " | ...!~... \n");
}

TEST(HexDump, NothingForZeroBytesAndOffsetsCountWholeBuffer) {
    EXPECT_EQ(dump({}), "");

    std::vector<uint8_t> big(0x1001, 0xff);
    std::string out = dump(big);
    size_t newlines = 0;
    for (char c : out) newlines += c == '\n';
    EXPECT_EQ(newlines, 0x101u);
    EXPECT_NE(out.find("\n00000ff0: ff"), std::string::npos);
    EXPECT_NE(out.find("\n00001000: ff   "), std::string::npos);
    // Every full line is 80 characters with its newline.
    EXPECT_EQ(out.find('\n'), 79u);
}

TEST(DeviceTable, LookupIsExactAndCaseSensitive) {
    EXPECT_EQ(TalvexDeviceLookup("gyro"), 0);
    EXPECT_EQ(TalvexDeviceLookup("accel"), 1);
    EXPECT_EQ(TalvexDeviceLookup("compass"), 2);
    EXPECT_EQ(TalvexDeviceLookup("talvex"), 3);
    EXPECT_EQ(TalvexDeviceLookup("pressure"), 4);
    EXPECT_EQ(TalvexDeviceLookup("corvel"), 5);
    EXPECT_EQ(TalvexDeviceLookup("prox"), 6);
    for (const char *word : {"Gyro", "GYRO", "gyro ", "gyr", "gyros", "", "0", "talvexctl"})
        EXPECT_EQ(TalvexDeviceLookup(word), kTalvexNoDevice) << word;
}

TEST(DeviceTable, RowOrderPutsPressureBeforeTalvex) {
    const char *expected[] = {"gyro", "accel", "compass", "pressure", "talvex", "corvel", "prox"};
    size_t i = 0;
    for (const TalvexDevice *row = kTalvexDevices; row->name; ++row, ++i) {
        ASSERT_LT(i, 7u);
        EXPECT_STREQ(row->name, expected[i]);
    }
    EXPECT_EQ(i, 7u);
    EXPECT_EQ(kTalvexDevices[7].id, 0xff);
}

TEST(Parsing, BasesAndNoValidation) {
    EXPECT_EQ(TalvexParseHex("10"), 16);
    EXPECT_EQ(TalvexParseHex("0x10"), 16);
    EXPECT_EQ(TalvexParseHex("0XfF"), 255);
    EXPECT_EQ(TalvexParseHex("12zz"), 0x12);   // trailing text ignored
    EXPECT_EQ(TalvexParseHex("zz"), 0);        // not a number: 0
    EXPECT_EQ(static_cast<uint8_t>(TalvexParseHex("1ab")), 0xab);   // cut to the field
    EXPECT_EQ(TalvexParseDec("010"), 10);
    EXPECT_EQ(TalvexParseDec("0x10"), 0);
    EXPECT_EQ(TalvexParseDec("-3"), -3);
    EXPECT_EQ(TalvexParseHex64("123456789abcdef0"), 0x123456789abcdef0LL);
    EXPECT_EQ(static_cast<uint32_t>(TalvexParseHex64("1ffffffff")), 0xffffffffu);
}

}  // namespace
