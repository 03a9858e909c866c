tavor_test(hdl_driver_test
    SOURCES
        hdl_driver_test.cpp
        hdl_fakes.cpp
        "${PROJECT_SOURCE_DIR}/tests/support/format_fault.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_driver.cpp")
target_link_options(hdl_driver_test PRIVATE -Wl,--wrap=free -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk)
