# Sleeps of these programs take no time and move a clock of the test's own.
set(TAVOR_CLOCK_WRAPS
    -Wl,--wrap=time -Wl,--wrap=timespec_get -Wl,--wrap=gettimeofday -Wl,--wrap=nanosleep)

tavor_test(tool_time_test SOURCES tool_time_test.cpp ../support/fake_clock.cpp USES tavor_tool)
target_link_options(tool_time_test PRIVATE ${TAVOR_CLOCK_WRAPS} -Wl,--wrap=localtime_r)
tavor_test(tool_text_test SOURCES tool_text_test.cpp ../support/fake_clock.cpp USES tavor_tool)
target_link_options(tool_text_test PRIVATE ${TAVOR_CLOCK_WRAPS} -Wl,--wrap=malloc)
tavor_test(tool_rx_buffer_test SOURCES tool_rx_buffer_test.cpp USES tavor_tool)
tavor_test(crc32_calc_test SOURCES crc32_calc_test.cpp USES tavor_tool)
