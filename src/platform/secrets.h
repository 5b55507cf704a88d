#pragma once
// Secrets: random bytes from the kernel's source, and passwords kept only as
// salted hashes compared in constant time, so that neither a memory dump
// nor the time a comparison takes gives a password away.

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>

using Salt = std::array<std::uint8_t, 16>;
using PasswordHash = std::array<std::uint8_t, 32>;

void randomBytes(void* out, std::size_t size);
Salt randomSalt();
PasswordHash saltedHash(const Salt& salt, std::string_view password);
bool sameHash(const PasswordHash& a, const PasswordHash& b);
// Compares two byte strings of the same size in constant time.
bool sameSecret(const std::uint8_t* a, const std::uint8_t* b, std::size_t size);
