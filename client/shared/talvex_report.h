// The report hub's wire, which the report library reads and the simulator
// writes: the channel type word and the raw element the hub copies into its
// clients' buffers. It depends on nothing but the C++ library.
#pragma once

#include <cstddef>
#include <cstdint>

// Report formats (byte 0 of the channel type).
enum TalvexReportFormat : uint8_t {
    kReportInvalidFormat,
    kReportSimple,
    kReportState,
    kReportHistogram,
    kReportArray,
};

// The channel type: byte 0 the format, bytes 2-3 the categories (bits the
// report library leaves to its callers), bytes 4-5 the element count.
constexpr uint64_t report_type(uint8_t format, uint16_t categories, uint16_t elements) {
    return uint64_t{format} | (uint64_t{categories} << 16) | (uint64_t{elements} << 32);
}
constexpr uint8_t typeFormat(uint64_t type) { return static_cast<uint8_t>(type); }
constexpr uint16_t typeCategories(uint64_t type) { return static_cast<uint16_t>(type >> 16); }
constexpr uint16_t typeElementCount(uint64_t type) { return static_cast<uint16_t>(type >> 32); }

// A raw element: 64 bytes, little-endian, its fields at these offsets. The
// four 64-bit values mean, by format:
//   simple     value
//   state      state ID, transitions into the state, residency, (unused)
//   histogram  hits, minimum, maximum, sum of samples (one element per bucket)
//   array      four values per element
inline constexpr size_t kElementSize = 64;
enum TalvexElementField : size_t {
    kElemDriverID = 0,
    kElemChannelID = 8,
    kElemType = 16,
    kElemCount = 20,    // the type's element count (16 bits)
    kElemStamp = 24,    // the update stamp
    kElemValues = 32,
};
