# Link and power line are the tests' own: only the sources under test are linked.
set(TAVOR_DOWNLOAD_DIR "${PROJECT_SOURCE_DIR}/src/download")

tavor_test(hdl_echo_test
    SOURCES
        hdl_echo_test.cpp
        brom_link.cpp
        ../support/fake_clock.cpp
        "${TAVOR_DOWNLOAD_DIR}/hdl_echo.cpp"
    USES tavor_tool)
target_link_options(hdl_echo_test PRIVATE ${TAVOR_CLOCK_WRAPS})

tavor_test(hdl_brom_test
    SOURCES
        hdl_brom_test.cpp
        hdl_brom_agent_test.cpp
        brom_link.cpp
        ../support/fake_clock.cpp
        "${TAVOR_DOWNLOAD_DIR}/hdl_brom.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_echo.cpp"
        "${PROJECT_SOURCE_DIR}/src/link/stop_mark.cpp"
    USES tavor_tool)
target_link_options(hdl_brom_test PRIVATE
    ${TAVOR_CLOCK_WRAPS} -Wl,--wrap=fopen -Wl,--wrap=fclose -Wl,--wrap=fread)
