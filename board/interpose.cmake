# The replaced C library functions, in a test program's own process. An object library: its definitions must win.
add_library(board_interpose_local OBJECT
    interpose/fail.cpp
    interpose/libc.cpp
    interpose/local.cpp
    interpose/paths.cpp)
target_include_directories(board_interpose_local PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_interpose_local PUBLIC tavor_options ${CMAKE_DL_LIBS})
