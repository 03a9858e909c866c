# The command channel and the configured path are functions of the tests: only the sources under test are linked.
set(TAVOR_SERVICE_DIR "${PROJECT_SOURCE_DIR}/src/service")

tavor_test(location_file_test
    SOURCES location_file_test.cpp ../support/format_fault.cpp "${TAVOR_SERVICE_DIR}/location_file.cpp"
    USES tavor_parse)
target_link_options(location_file_test PRIVATE
    -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk -Wl,--wrap=fwrite -Wl,--wrap=fclose)
tavor_test(location_aiding_test
    SOURCES
        location_aiding_test.cpp
        "${TAVOR_SERVICE_DIR}/location_aiding.cpp"
        "${TAVOR_SERVICE_DIR}/location_file.cpp"
        "${TAVOR_SERVICE_DIR}/service_state.cpp"
    USES tavor_parse)
target_link_options(location_aiding_test PRIVATE -Wl,--wrap=time)
tavor_test(location_position_test
    SOURCES
        location_position_test.cpp
        "${TAVOR_SERVICE_DIR}/location_aiding.cpp"
        "${TAVOR_SERVICE_DIR}/location_file.cpp"
        "${TAVOR_SERVICE_DIR}/location_position.cpp"
        "${TAVOR_SERVICE_DIR}/service_state.cpp"
    USES tavor_parse)
target_compile_definitions(location_position_test PRIVATE
    TAVOR_NMEA_LOGS="${TAVOR_NMEA_LOGS}"
    TAVOR_REPLAY_DIR="${TAVOR_REPLAY_DIR}")
