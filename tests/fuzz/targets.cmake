tavor_fuzz(agent_frames SOURCES agent_frames.cpp USES tavor_agent)
tavor_fuzz(assistance_file
    SOURCES
        assistance_file.cpp
        "${PROJECT_SOURCE_DIR}/src/assist/xod_host_aiding.cpp"
        "${PROJECT_SOURCE_DIR}/src/link/stop_mark.cpp"
    USES tavor_parse)
target_link_options(fuzz_assistance_file PRIVATE -Wl,--wrap=fopen -Wl,--wrap=fclose -Wl,--wrap=usleep)
tavor_fuzz(config_reader SOURCES config_reader.cpp USES tavor_config)
target_link_options(fuzz_config_reader PRIVATE -Wl,--wrap=fopen)
tavor_fuzz(etag SOURCES etag.cpp USES tavor_parse)
tavor_fuzz(frame_parser SOURCES frame_parser.cpp USES tavor_parse)
tavor_fuzz(host_mux_hostile_i2c SOURCES host_mux_hostile_i2c.cpp USES board_interpose_local tavor_mux)
target_link_options(fuzz_host_mux_hostile_i2c PRIVATE -Wl,--wrap=_Z22port_platform_sleep_msj)
tavor_fuzz(host_mux_hostile_slave SOURCES host_mux_hostile_slave.cpp USES board_interpose_local tavor_mux)
tavor_fuzz(image_list SOURCES image_list.cpp USES tavor_tool)
tavor_fuzz(position_update SOURCES position_update.cpp USES tavor_parse)
tavor_fuzz(tool_unescape SOURCES tool_unescape.cpp USES tavor_tool)
tavor_fuzz(uart_unescape SOURCES uart_unescape.cpp USES tavor_debug)
