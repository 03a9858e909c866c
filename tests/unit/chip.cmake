tavor_test(chip_test
    SOURCES
        chip_command_test.cpp
        chip_fault_test.cpp
        chip_slave_test.cpp
        chip_source_test.cpp
        chip_wire.cpp
    USES board_chip)

tavor_test(board_devices_test
    SOURCES board_devices_test.cpp
    USES board_local tavor_mux tavor_platform board_interpose_local)
