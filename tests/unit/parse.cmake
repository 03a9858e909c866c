tavor_test(location_frame_test SOURCES location_frame_test.cpp USES tavor_parse)
target_compile_definitions(location_frame_test PRIVATE TAVOR_NMEA_LOGS="${PROJECT_SOURCE_DIR}/../shared/data/nmea")
tavor_test(location_nmea_fields_test SOURCES location_nmea_fields_test.cpp USES tavor_parse)
tavor_test(location_record_test SOURCES location_record_test.cpp USES tavor_parse)
