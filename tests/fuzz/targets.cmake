tavor_fuzz(frame_parser SOURCES frame_parser.cpp USES tavor_parse)
tavor_fuzz(host_mux_hostile_slave SOURCES host_mux_hostile_slave.cpp USES board_interpose_local tavor_mux)
tavor_fuzz(position_update SOURCES position_update.cpp USES tavor_parse)
tavor_fuzz(uart_unescape SOURCES uart_unescape.cpp USES tavor_debug)
