tavor_test(location_config_test SOURCES location_config_test.cpp USES tavor_config board_interpose_local)
target_compile_definitions(location_config_test PRIVATE
    TAVOR_XOD_HOST="${TAVOR_XOD_HOST}"
    TAVOR_SAMPLE_CONFIG="${PROJECT_SOURCE_DIR}/packaging/tavor.conf")
