foreach(area paths files devices sockets fail clock timer)
    tavor_test(interpose_${area}_test SOURCES interpose_${area}_test.cpp USES board_interpose_local)
endforeach()

if(TARGET tavor-board)
    tavor_test(board_server_options_test SOURCES board_server_options_test.cpp USES board_server)
    tavor_test(board_server_flash_test SOURCES board_server_flash_test.cpp USES board_server)
    tavor_test(board_assist_test SOURCES board_assist_test.cpp USES board_server)
    tavor_test(board_server_control_test SOURCES board_server_control_test.cpp USES board_server)

    # A program as it would run on the device; it knows nothing of boards.
    add_executable(board_server_probe board_server_probe.cpp)
    target_link_libraries(board_server_probe PRIVATE tavor_options)

    foreach(area run wire)
        tavor_test(board_server_${area}_test LABEL system
            SOURCES board_server_${area}_test.cpp USES tavor_test_harness)
        target_compile_definitions(board_server_${area}_test PRIVATE
            TAVOR_PROBE_PROGRAM="$<TARGET_FILE:board_server_probe>")
        add_dependencies(board_server_${area}_test board_server_probe)
    endforeach()
    target_link_libraries(board_server_wire_test PRIVATE board_server)
    target_link_libraries(board_server_run_test PRIVATE board_server)
endif()
