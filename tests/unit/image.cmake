tavor_test(hdl_image_test
    SOURCES
        hdl_image_list_test.cpp
        hdl_image_test.cpp
        hdl_image_faults.cpp
        ../support/format_fault.cpp
        ../support/fake_clock.cpp
    USES tavor_tool)
target_link_options(hdl_image_test PRIVATE
    ${TAVOR_CLOCK_WRAPS}
    -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk
    -Wl,--wrap=malloc -Wl,--wrap=calloc -Wl,--wrap=strdup -Wl,--wrap=realpath
    -Wl,--wrap=fclose -Wl,--wrap=fseeko -Wl,--wrap=fread -Wl,--wrap=__fread_chk -Wl,--wrap=fgets)
