// Little-endian byte access for the driver's request and reply structures.
// Every multi-byte field is written and read one byte at a time.
#pragma once

#include <cstdint>

inline void TalvexStoreLE16(uint8_t *p, uint16_t v) {
    p[0] = static_cast<uint8_t>(v);
    p[1] = static_cast<uint8_t>(v >> 8);
}

inline void TalvexStoreLE32(uint8_t *p, uint32_t v) {
    for (int i = 0; i < 4; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline void TalvexStoreLE64(uint8_t *p, uint64_t v) {
    for (int i = 0; i < 8; ++i) p[i] = static_cast<uint8_t>(v >> (8 * i));
}

inline uint16_t TalvexLoadLE16(const uint8_t *p) { return static_cast<uint16_t>(p[0] | (p[1] << 8)); }

inline uint32_t TalvexLoadLE32(const uint8_t *p) {
    return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) | (static_cast<uint32_t>(p[2]) << 16) |
           (static_cast<uint32_t>(p[3]) << 24);
}

inline uint64_t TalvexLoadLE64(const uint8_t *p) {
    return static_cast<uint64_t>(TalvexLoadLE32(p)) | (static_cast<uint64_t>(TalvexLoadLE32(p + 4)) << 32);
}
