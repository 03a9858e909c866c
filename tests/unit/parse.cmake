tavor_test(location_frame_test SOURCES location_frame_test.cpp USES tavor_parse)
target_compile_definitions(location_frame_test PRIVATE
    TAVOR_NMEA_LOGS="${TAVOR_NMEA_LOGS}"
    TAVOR_REPLAY_DIR="${TAVOR_REPLAY_DIR}")
tavor_test(location_nmea_fields_test SOURCES location_nmea_fields_test.cpp USES tavor_parse)
tavor_test(location_record_test SOURCES location_record_test.cpp ../support/format_fault.cpp USES tavor_parse)
target_link_options(location_record_test PRIVATE -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk)
