tavor_test(location_uart_escape_test SOURCES location_uart_escape_test.cpp USES tavor_debug)
tavor_test(location_uart_test SOURCES location_uart_test.cpp debug_support.cpp USES tavor_debug)
target_link_options(location_uart_test PRIVATE
    -Wl,--wrap=malloc -Wl,--wrap=fcntl -Wl,--wrap=tcgetattr -Wl,--wrap=tcsetattr)
tavor_test(location_epoll_test SOURCES location_epoll_test.cpp USES tavor_debug)
tavor_test(location_socket_server_test
    SOURCES location_socket_server_test.cpp debug_support.cpp
    USES tavor_debug board_interpose_local)
tavor_test(location_debug_clients_test SOURCES location_debug_clients_test.cpp USES tavor_debug)
tavor_test(location_debug_test
    SOURCES
        location_debug_queue_test.cpp
        location_debug_serial_test.cpp
        location_debug_switch_test.cpp
        location_debug_tcp_test.cpp
        location_debug_test.cpp
        debug_fixture.cpp
        debug_support.cpp
    USES tavor_debug board_interpose_local)
target_link_options(location_debug_test PRIVATE -Wl,--wrap=msgrcv)
tavor_test(location_debug_failure_test
    SOURCES location_debug_failure_test.cpp debug_fixture.cpp debug_support.cpp
    USES tavor_debug board_interpose_local)
target_link_options(location_debug_failure_test PRIVATE -Wl,--wrap=malloc -Wl,--wrap=write -Wl,--wrap=epoll_wait)
