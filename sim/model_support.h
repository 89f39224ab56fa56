// Helpers the simulated models share: deterministic noise, counts that grow
// with running time, and the fields of the replies they build (numbers
// through little_endian.h's loads and stores).
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>
#include <vector>

#include "little_endian.h"

namespace talvex::sim {

// Deterministic noise.
uint64_t mix64(uint64_t x);
// A number in [0, 1) for the key.
double unit_noise(uint64_t key);
// A key from a few parts.
uint64_t noise_key(uint64_t a, uint64_t b, uint64_t c = 0);

// A count that grows at a rate per second of running time, keeping the
// fraction between advances so that many short advances add up to the same
// total as one long one.
class RateCounter {
public:
    void advance(uint64_t elapsed_ns, uint64_t per_second);
    uint64_t value() const { return value_; }
    void clear() { *this = {}; }

private:
    uint64_t value_ = 0;
    uint64_t remainder_ = 0;   // (units x 1e9) not yet whole
};

// Writes `text` and a NUL into out[at, at + field), cut to field - 1 bytes.
void put_text(std::vector<uint8_t> &out, size_t at, size_t field, const std::string &text);
// 32-bit figures saturate, as the firmware's counters do.
uint32_t saturate32(uint64_t v);

}  // namespace talvex::sim
