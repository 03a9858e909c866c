set(TAVOR_SERVICE_DIR "${PROJECT_SOURCE_DIR}/src/service")

tavor_test(location_service_test
    SOURCES location_service_test.cpp service_fakes.cpp "${TAVOR_SERVICE_DIR}/location_service.cpp"
    USES tavor_queue board_interpose_local)
tavor_test(tavor_test
    SOURCES tavor_test.cpp "${TAVOR_SERVICE_DIR}/tavor.cpp" "${TAVOR_SERVICE_DIR}/tavor_reply.cpp"
    USES tavor_queue board_interpose_local)
tavor_test(tavor_reply_test SOURCES tavor_reply_test.cpp "${TAVOR_SERVICE_DIR}/tavor_reply.cpp")
tavor_test(protocol_test SOURCES protocol_test.cpp protocol_layout.c)

# Allocations of these programs can be made to fail.
foreach(test location_service_test tavor_test)
    target_link_options(${test} PRIVATE -Wl,--wrap=malloc)
endforeach()
