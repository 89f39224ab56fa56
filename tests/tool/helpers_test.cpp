// The hex dump, in-process: its columns, padding and character side. (The
// device table and number parsing show in every command's requests.)
#include "talvexctl.h"

#include <gtest/gtest.h>

#include <algorithm>
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

TEST(HexDump, ColumnsPaddingAndCharacters) {
    const std::string blank(3, ' ');
    auto blanks = [&](int n) {
        std::string s;
        for (int i = 0; i < n; ++i) s += blank;
        return s;
    };
    const std::pair<std::vector<uint8_t>, std::string> cases[] = {
        {{}, ""},
        {range(0x41, 16), "00000000: 41 42 43 44 45 46 47 48  49 4a 4b 4c 4d 4e 4f 50  | ABCDEFGH IJKLMNOP\n"},
        // One byte: the empty positions keep the separator in its column.
        {{0x20}, "00000000: 20 " + blanks(7) + " " + blanks(8) + " | .\n"},
        // Seventeen: a full line, then one byte at offset 0x10.
        {range(0x30, 17), "00000000: 30 31 32 33 34 35 36 37  38 39 3a 3b 3c 3d 3e 3f  | 01234567 89:;<=>?\n"
                          "00000010: 40 " + blanks(7) + " " + blanks(8) + " | @\n"},
        // Nine: the extra blank after the eighth byte on both sides.
        {range(0x61, 9), "00000000: 61 62 63 64 65 66 67 68  69 " + blanks(7) + " | abcdefgh i\n"},
        // Exactly eight: the blank after the eighth character is still written.
        {range(0x61, 8), "00000000: 61 62 63 64 65 66 67 68  " + blanks(8) + " | abcdefgh \n"},
        // Only graphic ASCII prints as itself.
        {{0x00, 0x1f, 0x20, 0x21, 0x7e, 0x7f, 0x80, 0xff}, "00000000: 00 1f 20 21 7e 7f 80 ff  " + blanks(8) +
                                                              " | ...!~... \n"},
    };
    for (const auto &[bytes, text] : cases) EXPECT_EQ(dump(bytes), text) << bytes.size() << " bytes";

    // Offsets count the whole buffer; every full line is 80 characters with its newline.
    std::string out = dump(std::vector<uint8_t>(0x1001, 0xff));
    EXPECT_EQ(std::count(out.begin(), out.end(), '\n'), 0x101);
    EXPECT_NE(out.find("\n00000ff0: ff"), std::string::npos);
    EXPECT_NE(out.find("\n00001000: ff   "), std::string::npos);
    EXPECT_EQ(out.find('\n'), 79u);
}

}  // namespace
