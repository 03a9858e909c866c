# Sleeps of these programs are short, and allocations of the platform port can be made to fail.
set(TAVOR_MUX_WRAPS -Wl,--wrap=usleep -Wl,--wrap=_Z20port_platform_mallocm)

tavor_test(host_mux_test
    SOURCES
        host_mux_test.cpp
        host_mux_receive_test.cpp
        host_mux_send_test.cpp
        host_mux_power_test.cpp
        host_mux_stop_test.cpp
        host_mux_threads_test.cpp
        host_mux_turns_test.cpp
        host_mux_slave.cpp
    USES tavor_mux board_interpose_local)
target_link_options(host_mux_test PRIVATE
    ${TAVOR_MUX_WRAPS} -Wl,--wrap=_Z24port_platform_give_mutexP15pthread_mutex_t)

tavor_test(location_serial_port_test
    SOURCES location_serial_port_test.cpp host_mux_slave.cpp ../support/format_fault.cpp
    USES tavor_mux board_interpose_local)
target_link_options(location_serial_port_test PRIVATE
    ${TAVOR_MUX_WRAPS} -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk)

# Its pauses are recorded instead of slept, and each give of the mutex is seen.
tavor_test(host_mux_i2c_test SOURCES host_mux_i2c_test.cpp USES tavor_mux board_interpose_local)
target_link_options(host_mux_i2c_test PRIVATE -Wl,--wrap=_Z22port_platform_sleep_msj
    -Wl,--wrap=_Z24port_platform_give_mutexP15pthread_mutex_t)
