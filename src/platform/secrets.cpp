#include "platform/secrets.h"

#include <cstdlib>

#include <sodium.h>

namespace {
void ready() {
    // Once, from whichever thread comes first; without it nothing here can be
    // trusted, so the process does not go on.
    static const bool initialised = sodium_init() >= 0;
    if (!initialised) std::abort();
}
}  // namespace

void randomBytes(void* out, std::size_t size) {
    ready();
    randombytes_buf(out, size);
}

Salt randomSalt() {
    Salt salt;
    randomBytes(salt.data(), salt.size());
    return salt;
}

// A keyed BLAKE2b with the salt as its key: a room's password guards a room
// for its life, guesses are limited by the server, and the hash never leaves
// the process, so a slow key-derivation function would only cost CPU.
PasswordHash saltedHash(const Salt& salt, std::string_view password) {
    ready();
    PasswordHash hash;
    crypto_generichash(hash.data(), hash.size(), reinterpret_cast<const unsigned char*>(password.data()),
                       password.size(), salt.data(), salt.size());
    return hash;
}

bool sameHash(const PasswordHash& a, const PasswordHash& b) { return sodium_memcmp(a.data(), b.data(), a.size()) == 0; }

bool sameSecret(const std::uint8_t* a, const std::uint8_t* b, std::size_t size) { return sodium_memcmp(a, b, size) == 0; }
