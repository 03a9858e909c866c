// Responses to clients, and how long a client that does not read is waited for.
//
// A send waits at most one second for room in its reader's queue. A reader that it has waited for in vain is
// not waited for again until a send to it succeeds. While a stop or a download request is announced,
// sentences wait for nobody, and results for half a second in all.
//
// A result that finds no room is kept, and goes to its asker before anything else does; it is given up after
// 30 seconds, or when 16 later ones are kept. Sentences and position blocks that find no room are lost. Each
// loss is logged.
#ifndef TAVOR_TAVOR_REPLY_H
#define TAVOR_TAVOR_REPLY_H

#include <cstdint>
#include <sys/socket.h>
#include <sys/un.h>

// Address of a client as received, at most sizeof(sockaddr_un) bytes of it in use.
struct TavorPeer {
    sockaddr_un address;
    socklen_t length;
};

// Sets the socket that responses are sent from. Nothing is kept then, and nobody is the client.
void tavor_reply_open(int32_t socket);

// Makes the peer the one that gets all further responses. Any thread.
void tavor_reply_to(const TavorPeer& client);

// Sends one response to the client: the ResponseCallback of the service, called on its thread. At most 512
// bytes of the payload are sent.
void tavor_send_response(uint32_t id, uint32_t value, const void* payload, uint32_t length);

// Answers the client's latest request, of this service message id, with failure, without waiting. Any thread.
void tavor_reply_failed(uint32_t id);

// Tries to send what is kept, without waiting; on the service's thread, between two messages: a stop that is
// over is noticed here. Returns whether something is still kept.
bool tavor_reply_retry();

#endif
