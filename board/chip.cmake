add_library(board_chip STATIC
    chip/chip.cpp
    chip/chip_aiding.cpp
    chip/chip_command.cpp
    chip/chip_fault.cpp
    chip/chip_fifo.cpp
    chip/chip_options.cpp
    chip/chip_replay.cpp
    chip/chip_sentence.cpp
    chip/chip_sky.cpp
    chip/chip_slave.cpp
    chip/chip_source.cpp
    chip/chip_trajectory.cpp)
target_include_directories(board_chip PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_chip PUBLIC tavor_options)
