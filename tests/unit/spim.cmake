tavor_test(stop_mark_test SOURCES stop_mark_test.cpp USES tavor_platform)

# The SPI device is the tests' own: only the sources under test are linked.
tavor_test(spim_test
    SOURCES
        spim_test.cpp
        spim_retry_test.cpp
        spim_slave.cpp
        ../support/fake_clock.cpp
        "${PROJECT_SOURCE_DIR}/src/download/hdl_transport.cpp"
        "${PROJECT_SOURCE_DIR}/src/link/stop_mark.cpp"
        "${PROJECT_SOURCE_DIR}/src/transport/spim.cpp"
    USES tavor_tool)
target_link_options(spim_test PRIVATE ${TAVOR_CLOCK_WRAPS})
