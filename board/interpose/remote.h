// Where the remote variant of the backend finds its board server.
#ifndef TAVOR_BOARD_REMOTE_H
#define TAVOR_BOARD_REMOTE_H

// Sets the board's directory. Returns false when the path of the socket in it is too long.
bool remote_set_server(const char* directory);

// The kernel has made a copy of a descriptor, in the place of what the copy's number was before: it is the
// same node, or none like the descriptor.
void remote_copied(int fd, int copy);

#endif
