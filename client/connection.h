// The client's end of the daemon's datagram socket.
#ifndef TAVOR_CLIENT_CONNECTION_H
#define TAVOR_CLIENT_CONNECTION_H

#include "base/non_copyable.h"
#include "endpoint/endpoint.h"
#include "tavor/protocol.h"

#include <chrono>
#include <string>

using Clock = std::chrono::steady_clock;

// The time that many seconds from now; 0 is never.
Clock::time_point deadline_in(double seconds);

// One socket to one daemon; closed with its owner. Its address is abstract, so that nothing is left behind
// however the process ends.
struct Connection : private NonCopyable {
    Connection() = default;
    ~Connection();

    int socket = -1;
    int interrupt = -1;   // a wait ends when this descriptor is readable; -1 for none
    int output = -1;      // a wait ends when nobody reads the other end of this descriptor; -1 for none
    std::string path;     // of the daemon's socket
    EndpointFile reached; // what stood there when it was connected
    std::string error;    // what went wrong and what to do, one line
    bool busy = false;    // the daemon is there and takes no request
};

enum class Received { kResponse, kMalformed, kTimeout, kInterrupted, kOutputClosed, kFailed };
enum class Presence { kSame, kGone, kRestarted };
enum class Retaken { kSameDaemon, kNewDaemon, kFailed };

// The daemon's usual socket, or that of the relay when one answers there.
std::string connection_usual_path(const char* relay = TAVOR_RELAY_SOCKET_PATH,
                                  const char* daemon = TAVOR_SOCKET_PATH);

// Binds an address and connects to the daemon's socket; a daemon that is being restarted is waited for, two
// seconds at most. False on failure, with error set, and when interrupted, with error empty.
bool connection_open(Connection& connection, const std::string& path);

// Sends one request; the text is cut to 511 bytes. Waits until the deadline while the daemon's queue is full.
// A daemon that was restarted since the last request is found again. False on failure, with error set, and
// when interrupted, with error empty.
bool connection_send(Connection& connection, tavor_request_type type, const std::string& text,
                     Clock::time_point deadline);

// Makes this socket the receiver of the daemon's output again without any other effect; a daemon that was
// restarted since is asked to start positioning instead, for it can't have been started. Fails as
// connection_send.
Retaken connection_retake(Connection& connection, Clock::time_point deadline);

// Whether the daemon that was reached is still there, without a request: nothing else tells a waiting client
// of its end. What can't be determined counts as kSame.
Presence connection_presence(const Connection& connection);

// Notes which socket stands at the path now, for connection_presence; nothing is opened.
void connection_note(Connection& connection, const std::string& path);

// The next datagram. One that has come is returned even when the deadline is over; one that is not 520 bytes
// long is taken off and reported as kMalformed.
Received connection_receive(Connection& connection, tavor_response& response, Clock::time_point deadline);

// What a failure to reach the socket at the path means and what to do.
std::string connection_error_text(const std::string& path, int error);

#endif
