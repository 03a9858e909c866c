add_library(board_devices STATIC
    devices/board_devices.cpp
    devices/board_gpio.cpp
    devices/board_spi.cpp)
target_link_libraries(board_devices PUBLIC board_chip)

add_library(board_local STATIC devices/board_local.cpp)
target_link_libraries(board_local PUBLIC board_devices)
