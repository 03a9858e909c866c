# The flash work on a scripted agent: everything below it is replaced, so that nothing here takes time.
set(TAVOR_AGENT_SOURCES hdl_fakes.cpp "${TAVOR_DOWNLOAD_DIR}/hdl_da.cpp" "${TAVOR_DOWNLOAD_DIR}/hdl_kite.cpp")
set(TAVOR_FILE_FAULTS -Wl,--wrap=fseek -Wl,--wrap=fwrite -Wl,--wrap=fclose -Wl,--wrap=remove)

tavor_test(hdl_flash_block_test
    SOURCES hdl_flash_block_test.cpp "${TAVOR_DOWNLOAD_DIR}/hdl_flash_block.cpp")
tavor_test(hdl_window_test
    SOURCES
        hdl_window_test.cpp
        ${TAVOR_AGENT_SOURCES}
        "${TAVOR_DOWNLOAD_DIR}/hdl_flash_send.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_window.cpp")
tavor_test(hdl_flash_test
    SOURCES
        hdl_flash_test.cpp
        hdl_file_faults.cpp
        ${TAVOR_AGENT_SOURCES}
        "${TAVOR_DOWNLOAD_DIR}/hdl_flash.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_flash_block.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_flash_send.cpp"
        "${TAVOR_DOWNLOAD_DIR}/hdl_window.cpp")
target_link_options(hdl_flash_test PRIVATE ${TAVOR_FILE_FAULTS} -Wl,--wrap=calloc)
tavor_test(hdl_readback_test
    SOURCES
        hdl_readback_test.cpp
        hdl_file_faults.cpp
        ${TAVOR_AGENT_SOURCES}
        "${TAVOR_DOWNLOAD_DIR}/hdl_readback.cpp")
target_link_options(hdl_readback_test PRIVATE ${TAVOR_FILE_FAULTS})
