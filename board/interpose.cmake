# The replaced C library functions, in a test program's own process. An object library: its definitions must win.
add_library(board_interpose_local OBJECT
    interpose/board_clock.cpp
    interpose/clock.cpp
    interpose/fail.cpp
    interpose/hook_files.cpp
    interpose/hook_io.cpp
    interpose/hook_sockets.cpp
    interpose/hook_system.cpp
    interpose/hook_time.cpp
    interpose/hook_timer.cpp
    interpose/hook_wait.cpp
    interpose/local.cpp
    interpose/paths.cpp)
target_include_directories(board_interpose_local PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_interpose_local PUBLIC tavor_options ${CMAKE_DL_LIBS})

# The same for a whole program: preloaded, with a board server behind the device nodes.
add_library(tavor_board MODULE
    interpose/board_clock.cpp
    interpose/clock.cpp
    interpose/fail.cpp
    interpose/hook_files.cpp
    interpose/hook_io.cpp
    interpose/hook_sockets.cpp
    interpose/hook_system.cpp
    interpose/hook_time.cpp
    interpose/hook_timer.cpp
    interpose/hook_wait.cpp
    interpose/paths.cpp
    interpose/preload.cpp
    interpose/remote.cpp)
target_include_directories(tavor_board PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(tavor_board PRIVATE tavor_options ${CMAKE_DL_LIBS})
target_link_options(tavor_board PRIVATE
    "-Wl,--version-script=${CMAKE_CURRENT_SOURCE_DIR}/interpose/preload.map")
set_target_properties(tavor_board PROPERTIES
    PREFIX lib
    LINK_DEPENDS "${CMAKE_CURRENT_SOURCE_DIR}/interpose/preload.map")
install(TARGETS tavor_board DESTINATION "${CMAKE_INSTALL_LIBDIR}/tavor")
