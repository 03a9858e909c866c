// The right that a relay asks for.
#ifndef TAVOR_CLIENT_RELAY_RIGHT_H
#define TAVOR_CLIENT_RELAY_RIGHT_H

#include <string>

// What to do about a request at this socket that a relay refuses, as text to follow what has failed; empty
// when this user has the right, or no relay is there.
std::string relay_right_hint(const std::string& socket);

#endif
