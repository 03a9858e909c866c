add_library(board_chip STATIC
    chip/chip.cpp
    chip/chip_agent.cpp
    chip/chip_aiding.cpp
    chip/chip_boot_rom.cpp
    chip/chip_command.cpp
    chip/chip_crc32.cpp
    chip/chip_download.cpp
    chip/chip_download_fault.cpp
    chip/chip_fault.cpp
    chip/chip_fault_value.cpp
    chip/chip_fifo.cpp
    chip/chip_flash.cpp
    chip/chip_i2c.cpp
    chip/chip_i2c_fault.cpp
    chip/chip_options.cpp
    chip/chip_orbit.cpp
    chip/chip_orbit_file.cpp
    chip/chip_replay.cpp
    chip/chip_sentence.cpp
    chip/chip_sky.cpp
    chip/chip_slave.cpp
    chip/chip_source.cpp
    chip/chip_spim.cpp
    chip/chip_trajectory.cpp)
target_include_directories(board_chip PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(board_chip PUBLIC tavor_options)
