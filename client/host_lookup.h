// Whether a host has an address, within a time limit.
#ifndef TAVOR_CLIENT_HOST_LOOKUP_H
#define TAVOR_CLIENT_HOST_LOOKUP_H

#include <chrono>
#include <string>

// Why there is none, empty when there is one. The caller has one thread only.
std::string host_lookup(const std::string& name, std::chrono::milliseconds limit);

#endif
