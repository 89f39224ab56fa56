#include "model_support.h"

#include "clock.h"

namespace talvex::sim {

uint64_t mix64(uint64_t x) {
    x += 0x9e3779b97f4a7c15ull;
    x = (x ^ (x >> 30)) * 0xbf58476d1ce4e5b9ull;
    x = (x ^ (x >> 27)) * 0x94d049bb133111ebull;
    return x ^ (x >> 31);
}

double unit_noise(uint64_t key) { return static_cast<double>(mix64(key) >> 11) * 0x1.0p-53; }

uint64_t noise_key(uint64_t a, uint64_t b, uint64_t c) { return mix64(mix64(mix64(a) ^ b) ^ c); }

void RateCounter::advance(uint64_t elapsed_ns, uint64_t per_second) {
    // Whole seconds first, so the product below stays within 64 bits for
    // any rate up to 10^9 per second.
    value_ += (elapsed_ns / kNanosPerSecond) * per_second;
    uint64_t part = (elapsed_ns % kNanosPerSecond) * per_second + remainder_;
    value_ += part / kNanosPerSecond;
    remainder_ = part % kNanosPerSecond;
}

void put_text(std::vector<uint8_t> &out, size_t at, size_t field, const std::string &text) {
    size_t n = text.size() < field ? text.size() : field - 1;
    for (size_t i = 0; i < field; ++i) out[at + i] = i < n ? static_cast<uint8_t>(text[i]) : 0;
}

uint32_t saturate32(uint64_t v) { return v > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(v); }

}  // namespace talvex::sim
