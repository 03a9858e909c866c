// The socket of a board in its directory.
#ifndef TAVOR_BOARD_SOCKET_H
#define TAVOR_BOARD_SOCKET_H

#include <string>
#include <sys/un.h>

// Fills in the address; false when the directory's path is too long for one.
bool board_socket_address(const std::string& directory, sockaddr_un* address);

// Connects to the board that runs in the directory. Returns the descriptor, -1 with errno when there is none.
int board_socket_connect(const std::string& directory);

// What to tell a user when that failed for the reason (an errno).
std::string board_socket_no_board(const std::string& directory, int reason);

#endif
