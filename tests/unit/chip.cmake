tavor_test(chip_test
    SOURCES
        chip_agent_test.cpp
        chip_boot_rom_test.cpp
        chip_command_test.cpp
        chip_download_wire.cpp
        chip_fault_test.cpp
        chip_i2c_test.cpp
        chip_orbit_test.cpp
        chip_slave_test.cpp
        chip_source_test.cpp
        chip_spim_test.cpp
        chip_wire.cpp
    USES board_chip)

tavor_test(board_devices_test
    SOURCES board_devices_test.cpp
    USES board_local tavor_mux tavor_platform board_interpose_local)

tavor_test(board_i2c_test
    SOURCES board_i2c_test.cpp
    USES board_local tavor_mux board_interpose_local)
target_link_options(board_i2c_test PRIVATE -Wl,--wrap=_Z22port_platform_sleep_msj)
