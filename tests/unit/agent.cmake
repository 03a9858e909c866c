set(TAVOR_DOWNLOAD_DIR "${PROJECT_SOURCE_DIR}/src/download")

# Everything below the agent is replaced, so that nothing here takes time.
tavor_test(hdl_kite_test SOURCES hdl_kite_test.cpp hdl_fakes.cpp "${TAVOR_DOWNLOAD_DIR}/hdl_kite.cpp")
tavor_test(hdl_da_test
    SOURCES
        hdl_da_test.cpp
        hdl_da_wait_test.cpp
        hdl_da_command_test.cpp
        hdl_fakes.cpp
        "${TAVOR_DOWNLOAD_DIR}/hdl_da.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_kite.cpp")
target_link_options(hdl_da_test PRIVATE -Wl,--wrap=calloc)
