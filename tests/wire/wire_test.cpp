#include "wire.h"

#include <gtest/gtest.h>

using namespace talvex::wire;

TEST(Wire, FieldsAreLittleEndianAndReadBack) {
    Writer w;
    w.u8(0x01);
    w.u16(0x0302);
    w.u32(0x07060504);
    w.u64(0x0f0e0d0c0b0a0908ull);
    w.str("ab");
    const std::vector<uint8_t> expect{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 2, 0, 0, 0, 'a', 'b'};
    EXPECT_EQ(w.data(), expect);

    Reader r(w.data());
    EXPECT_EQ(r.u8(), 0x01);
    EXPECT_EQ(r.u16(), 0x0302);
    EXPECT_EQ(r.u32(), 0x07060504u);
    EXPECT_EQ(r.u64(), 0x0f0e0d0c0b0a0908ull);
    EXPECT_EQ(r.str(), "ab");
    EXPECT_TRUE(r.at_end());
}

TEST(Wire, AReusedBufferStartsEmptyAndFieldsArePatchedInPlace) {
    std::vector<uint8_t> kept{9, 9, 9, 9, 9, 9};
    kept.reserve(64);
    const uint8_t *storage = kept.data();
    Writer w(std::move(kept));
    w.u32(0);
    w.u16(0x0201);
    w.patch_u32(0, 0xa1b2c3d4u);
    const std::vector<uint8_t> expect{0xd4, 0xc3, 0xb2, 0xa1, 0x01, 0x02};
    EXPECT_EQ(w.data(), expect);
    EXPECT_EQ(w.take().data(), storage);   // no new allocation

    // Loads and stores at an offset into a span.
    std::vector<uint8_t> b(12, 0);
    store_le16(b, 0, 0xbeef);
    store_le64(b, 4, 0x0102030405060708ull);
    const std::vector<uint8_t> fields{0xef, 0xbe, 0, 0, 8, 7, 6, 5, 4, 3, 2, 1};
    EXPECT_EQ(b, fields);
    EXPECT_EQ(load_le32(b, 4), 0x05060708u);
    EXPECT_EQ(load_le16(b, 10), 0x0102u);
}

TEST(Wire, ShortAndLyingInputFailsWithoutReadingPastTheEnd) {
    const std::vector<uint8_t> truncated{0x01, 0x02, 0x03};
    Reader r(truncated);
    EXPECT_EQ(r.u32(), 0u);
    EXPECT_FALSE(r.ok());
    EXPECT_EQ(r.u8(), 0u);   // stays failed
    EXPECT_EQ(r.remaining(), 0u);

    // A blob whose length claims more than the message holds.
    Writer w;
    w.u32(0xffffffffu);
    w.u8(7);
    Reader r2(w.data());
    EXPECT_TRUE(r2.blob().empty());
    EXPECT_FALSE(r2.ok());
}

TEST(Wire, FramesCarryLengthOpSeqAndCode) {
    const std::vector<uint8_t> body{0xaa};
    auto req = make_request(Op::Call, 7, body);
    ASSERT_EQ(req.size(), 4u + 8 + 1);
    EXPECT_EQ(load_le32(req.data()), 9u);
    EXPECT_EQ(load_le16(req.data() + 4), static_cast<uint16_t>(Op::Call));
    EXPECT_EQ(load_le32(req.data() + 8), 7u);
    auto rep = make_reply(Op::Call, 7, static_cast<int32_t>(0xe00002c2u), body);
    EXPECT_EQ(load_le16(rep.data() + 4), static_cast<uint16_t>(static_cast<uint16_t>(Op::Call) | kReplyBit));
    EXPECT_EQ(load_le32(rep.data() + 12), 0xe00002c2u);
}

TEST(Wire, HexRoundTripAndRejectsBadText) {
    const std::vector<uint8_t> b{0x00, 0x10, 0xab, 0xff};
    EXPECT_EQ(to_hex(b), "0010abff");
    EXPECT_EQ(from_hex("0010ABff"), b);
    EXPECT_EQ(to_hex({}), "");
    EXPECT_FALSE(from_hex("abc").has_value());
    EXPECT_FALSE(from_hex("zz").has_value());
}
