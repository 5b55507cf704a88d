#include "lobby/mtrand.h"

#include <memory>

void MTRand_int32::seed32(std::uint32_t seed) {
    state_[0] = seed;
    for (int i = 1; i < kN; ++i)
        state_[i] = 1812433253u * (state_[i - 1] ^ (state_[i - 1] >> 30)) + static_cast<std::uint32_t>(i);
    position_ = kN;
}

void MTRand_int32::twist() {
    for (int i = 0; i < kN; ++i) {
        std::uint32_t y = (state_[i] & 0x80000000u) | (state_[(i + 1) % kN] & 0x7FFFFFFFu);
        std::uint32_t v = state_[(i + kM) % kN] ^ (y >> 1);
        if (y & 1u) v ^= 0x9908B0DFu;
        state_[i] = v;
    }
    position_ = 0;
}

std::uint32_t MTRand_int32::rand_int32() {
    if (position_ >= kN) twist();
    std::uint32_t y = state_[position_++];
    y ^= y >> 11;
    y ^= (y << 7) & 0x9D2C5680u;
    y ^= (y << 15) & 0xEFC60000u;
    y ^= y >> 18;
    return y;
}

namespace {
std::unique_ptr<MTRand> generator;
}

MTRand& globalGenerator() {
    if (!generator) generator = std::make_unique<MTRand>(0);
    return *generator;
}

void resetGlobalGenerator() { generator = std::make_unique<MTRand>(0); }
