#pragma once
// MT19937, the 32-bit Mersenne Twister. The server draws from one process-wide
// generator seeded with 0, so every run draws the same sequence.

#include <cstdint>

class MTRand_int32 {
public:
    explicit MTRand_int32(std::uint32_t seed = 0) { seed32(seed); }
    virtual ~MTRand_int32() = default;
    void seed32(std::uint32_t seed);
    std::uint32_t rand_int32();

private:
    static constexpr int kN = 624;
    static constexpr int kM = 397;
    void twist();
    std::uint32_t state_[kN];
    int position_ = kN;
};

class MTRand : public MTRand_int32 {
public:
    explicit MTRand(std::uint32_t seed = 0) : MTRand_int32(seed) {}
    // A draw in [0, 1).
    virtual double operator()() { return static_cast<double>(rand_int32()) * (1.0 / 4294967296.0); }
};

// The process-wide generator; created by the entry point (or on first use).
MTRand& globalGenerator();
void resetGlobalGenerator();
