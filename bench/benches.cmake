tavor_bench(micro_parse SOURCES micro_parse.cpp USES tavor_parse)
tavor_bench(micro_crc SOURCES micro_crc.cpp USES tavor_tool)
find_package(ZLIB QUIET) # only to compare with
if(ZLIB_FOUND)
    target_link_libraries(micro_crc PRIVATE ZLIB::ZLIB)
    target_compile_definitions(micro_crc PRIVATE TAVOR_HAVE_ZLIB)
endif()
