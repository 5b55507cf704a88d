#pragma once
// What must hold between the parts of a server after every event, whatever
// the clients sent: the fuzzers and the state tests check it.

#include <string>

#include "app/server.h"

// Empty when everything holds, else what does not.
std::string brokenInvariant(const Server& server);
