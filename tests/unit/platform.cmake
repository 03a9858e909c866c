foreach(module spi i2c gpio timer)
    tavor_test(location_${module}_test SOURCES location_${module}_test.cpp USES tavor_platform board_interpose_local)
endforeach()
tavor_test(port_platform_test SOURCES port_platform_test.cpp USES tavor_platform board_interpose_local)

target_sources(location_gpio_test PRIVATE ../support/format_fault.cpp)
target_link_options(location_gpio_test PRIVATE -Wl,--wrap=usleep -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk)
target_link_options(location_timer_test PRIVATE
    -Wl,--wrap=timer_create -Wl,--wrap=timer_settime -Wl,--wrap=timer_gettime)
target_sources(port_platform_test PRIVATE ../support/format_fault.cpp)
target_link_options(port_platform_test PRIVATE
    -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk
    -Wl,--wrap=usleep -Wl,--wrap=select -Wl,--wrap=malloc -Wl,--wrap=sem_destroy -Wl,--wrap=pthread_mutex_destroy)
