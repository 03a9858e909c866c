find_package(CLI11 2.1 REQUIRED)
find_package(nlohmann_json 3.11 REQUIRED)

find_path(TAVOR_MICROHTTPD_INCLUDE microhttpd.h REQUIRED)
find_library(TAVOR_MICROHTTPD microhttpd REQUIRED)

add_library(board_server STATIC
    interpose/board_clock.cpp
    interpose/paths.cpp
    server/assist_fault.cpp
    server/assist_server.cpp
    server/board_socket.cpp
    server/clock_file.cpp
    server/control.cpp
    server/control_client.cpp
    server/flash_file.cpp
    server/launch.cpp
    server/options.cpp
    server/run.cpp
    server/server.cpp)
target_include_directories(board_server PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_server PUBLIC board_devices nlohmann_json::nlohmann_json CLI11::CLI11
    "${TAVOR_MICROHTTPD}" "${TAVOR_MBEDCRYPTO}")
target_include_directories(board_server SYSTEM PRIVATE "${TAVOR_MICROHTTPD_INCLUDE}" "${TAVOR_MBEDTLS_INCLUDE}")
file(RELATIVE_PATH installed_library "/${CMAKE_INSTALL_BINDIR}"
    "/${CMAKE_INSTALL_LIBDIR}/tavor/libtavor_board.so")
target_compile_definitions(board_server PRIVATE
    TAVOR_BOARD_INSTALLED_LIBRARY="${installed_library}"
    TAVOR_VERSION="${PROJECT_VERSION}")

add_executable(tavor-board server/main.cpp)
target_link_libraries(tavor-board PRIVATE board_server)
add_dependencies(tavor-board tavor_board)
install(TARGETS tavor-board DESTINATION "${CMAKE_INSTALL_BINDIR}")
