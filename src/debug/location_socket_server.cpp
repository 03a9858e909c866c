// debug/location_socket_server
