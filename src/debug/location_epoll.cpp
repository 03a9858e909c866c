// debug/location_epoll
