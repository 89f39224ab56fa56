#include "wire.h"

#include <gtest/gtest.h>

using namespace talvex::wire;

TEST(Wire, FieldsAndFramesAreLittleEndianAndReadBack) {
    Writer w(std::vector<uint8_t>{9, 9, 9});   // a reused buffer starts empty
    w.u32(0);
    w.u16(0x0302);
    w.u64(0x0f0e0d0c0b0a0908ull);
    w.str("ab");
    w.patch_u32(0, 0x01020304u);
    const std::vector<uint8_t> expect{4, 3, 2, 1, 2, 3, 8, 9, 10, 11, 12, 13, 14, 15, 2, 0, 0, 0, 'a', 'b'};
    EXPECT_EQ(std::vector<uint8_t>(w.data().begin(), w.data().end()), expect);
    Reader r(w.data());
    EXPECT_EQ(r.u32(), 0x01020304u);
    EXPECT_EQ(r.u16(), 0x0302);
    EXPECT_EQ(r.u64(), 0x0f0e0d0c0b0a0908ull);
    EXPECT_EQ(r.str(), "ab");
    EXPECT_TRUE(r.at_end());
    EXPECT_EQ(load_le16(expect, 4), 0x0302u);
    // Taken and reused, the storage holds only what is written next, past
    // the room it had as well.
    Writer again(w.take());
    again.u8(1);
    again.bytes(std::vector<uint8_t>(300, 0x5a));
    std::vector<uint8_t> longer(301, 0x5a);
    longer[0] = 1;
    EXPECT_EQ(again.size(), 301u);
    EXPECT_EQ(again.take(), longer);

    // Length, op, seq and (replies) the code, then the body.
    const std::vector<uint8_t> body{0xaa};
    EXPECT_EQ(make_request(Op::Call, 7, body), (std::vector<uint8_t>{9, 0, 0, 0, 10, 0, 0, 0, 7, 0, 0, 0, 0xaa}));
    EXPECT_EQ(make_reply(Op::Call, 7, static_cast<int32_t>(0xe00002c2u), body),
              (std::vector<uint8_t>{13, 0, 0, 0, 10, 0x80, 0, 0, 7, 0, 0, 0, 0xc2, 0x02, 0, 0xe0, 0xaa}));
}

TEST(Wire, ShortAndLyingInputFailsWithoutReadingPastTheEnd) {
    const std::vector<uint8_t> truncated{0x01, 0x02, 0x03};
    Reader r(truncated);
    EXPECT_EQ(r.u32(), 0u);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.u8(), 0u);   // stays failed
    EXPECT_EQ(r.remaining(), 0u);

    // A blob whose length claims more than the message holds.
    const std::vector<uint8_t> lying{0xff, 0xff, 0xff, 0xff, 7};
    Reader r2(lying);
    EXPECT_TRUE(r2.blob().empty());
    EXPECT_FALSE(r2.ok());
}

TEST(Wire, HexRoundTripAndRejectsBadText) {
    const std::vector<uint8_t> b{0x00, 0x10, 0xab, 0xff};
    EXPECT_EQ(to_hex(b), "0010abff");
    EXPECT_EQ(from_hex("0010ABff"), b);
    EXPECT_FALSE(from_hex("abc").has_value());
    EXPECT_FALSE(from_hex("zz").has_value());
}
