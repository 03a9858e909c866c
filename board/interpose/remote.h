// Where the remote variant of the backend finds its board server.
#ifndef TAVOR_BOARD_REMOTE_H
#define TAVOR_BOARD_REMOTE_H

// Sets the board's directory. Returns false when the path of the socket in it is too long.
bool remote_set_server(const char* directory);

// Standard input, output and error may be nodes from the start: redirected by the program that has started
// this one. Call after remote_set_server.
void remote_take_redirections();

// The kernel has made a copy of a descriptor, in place of what the copy's number was before: it is the same
// node, or none like the descriptor.
void remote_copied(int fd, int copy);

#endif
