# The replaced C library functions, in a test program's own process. An object library: its definitions must win.
add_library(board_interpose_local OBJECT
    interpose/fail.cpp
    interpose/libc.cpp
    interpose/local.cpp
    interpose/paths.cpp)
target_include_directories(board_interpose_local PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_interpose_local PUBLIC tavor_options ${CMAKE_DL_LIBS})

# The same for a whole program: preloaded, with a board server behind the device nodes.
add_library(tavor_board MODULE
    interpose/fail.cpp
    interpose/libc.cpp
    interpose/paths.cpp
    interpose/preload.cpp
    interpose/remote.cpp)
target_include_directories(tavor_board PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(tavor_board PRIVATE tavor_options ${CMAKE_DL_LIBS})
set_target_properties(tavor_board PROPERTIES PREFIX lib)
install(TARGETS tavor_board DESTINATION "${CMAKE_INSTALL_LIBDIR}/tavor")
