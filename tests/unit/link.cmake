# The layers below are functions of the tests: only the sources under test are linked.
set(TAVOR_LINK_DIR "${PROJECT_SOURCE_DIR}/src/link")

tavor_test(location_command_test
    SOURCES location_command_test.cpp ../support/format_fault.cpp "${TAVOR_LINK_DIR}/location_command.cpp"
    USES tavor_parse)
target_link_options(location_command_test PRIVATE -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk)
tavor_test(location_io_test SOURCES location_io_test.cpp "${TAVOR_LINK_DIR}/location_io.cpp" USES tavor_parse)
target_link_options(location_io_test PRIVATE
    -Wl,--wrap=usleep -Wl,--wrap=pthread_create -Wl,--wrap=pthread_cancel -Wl,--wrap=malloc)
