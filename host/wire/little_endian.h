// Little-endian loads and stores: the one way every layer reads and writes
// multi-byte fields of wire messages, driver structures and report elements.
// Loads go one byte at a time (compilers make them a single load), so
// alignment and the machine's own order never matter.
#pragma once

#include <bit>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <span>

namespace talvex::wire {

inline uint16_t load_le16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }
inline uint32_t load_le32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}
inline uint64_t load_le64(const uint8_t *p) {
    return static_cast<uint64_t>(load_le32(p)) | (static_cast<uint64_t>(load_le32(p + 4)) << 32);
}

// Where the machine's own order is little-endian, the value's bytes are
// already in wire order and go out in one copy, which compilers make a single
// store; a byte loop is left a loop of byte stores (at -O2 it is not merged).
template <class Unsigned>
inline void store_le(uint8_t *p, Unsigned v) {
    if constexpr (std::endian::native == std::endian::little) {
        std::memcpy(p, &v, sizeof v);
    } else {
        for (size_t i = 0; i < sizeof v; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
    }
}
inline void store_le16(uint8_t *p, uint16_t v) { store_le(p, v); }
inline void store_le32(uint8_t *p, uint32_t v) { store_le(p, v); }
inline void store_le64(uint8_t *p, uint64_t v) { store_le(p, v); }

// The same at a byte offset into a span; the field lies inside the span, as
// an index does with operator[].
inline uint16_t load_le16(std::span<const uint8_t> in, size_t at) { return load_le16(in.subspan(at, 2).data()); }
inline uint32_t load_le32(std::span<const uint8_t> in, size_t at) { return load_le32(in.subspan(at, 4).data()); }
inline uint64_t load_le64(std::span<const uint8_t> in, size_t at) { return load_le64(in.subspan(at, 8).data()); }
inline void store_le16(std::span<uint8_t> out, size_t at, uint16_t v) { store_le16(out.subspan(at, 2).data(), v); }
inline void store_le32(std::span<uint8_t> out, size_t at, uint32_t v) { store_le32(out.subspan(at, 4).data(), v); }
inline void store_le64(std::span<uint8_t> out, size_t at, uint64_t v) { store_le64(out.subspan(at, 8).data(), v); }

}  // namespace talvex::wire
