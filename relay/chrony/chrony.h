// The time for chrony: one sample per second, as its reference clock SOCK takes them.
//
// A sample says how far the system's clock was from a sentence's time when the sentence came. chronyd makes
// the socket, and another one whenever it is restarted; the path is looked up for each sample, so nobody has
// to be told. No sample comes from a sentence that may have waited: when the relay was held up, there is none
// for five seconds, in which the daemon sends what it had to keep.
#ifndef TAVOR_RELAY_CHRONY_H
#define TAVOR_RELAY_CHRONY_H

#include <chrono>
#include <string>

struct ChronySettings {
    std::string path;                       // of chronyd's socket
    std::chrono::milliseconds second{1000}; // length of a second of the limit; tests shorten it
};

// Call after positioning_open; wants positioning until the end. False with errno set when there can be no
// socket.
bool chrony_open(const ChronySettings& settings);
void chrony_close();

#endif
