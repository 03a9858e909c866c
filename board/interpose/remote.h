// Where the remote variant of the backend finds its board server.
#ifndef TAVOR_BOARD_REMOTE_H
#define TAVOR_BOARD_REMOTE_H

// Sets the board's directory. Returns false when the path of the socket in it is too long.
bool remote_set_server(const char* directory);

#endif
