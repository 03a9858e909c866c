tavor_test(xod_schedule_test SOURCES xod_schedule_test.cpp USES tavor_parse)
tavor_test(xod_etag_test SOURCES xod_etag_test.cpp USES tavor_parse)

# What lies below the state machine is the fixture's: only the sources under test are linked.
set(TAVOR_ASSIST_DIR "${PROJECT_SOURCE_DIR}/src/assist")
foreach(test xod_download_test xod_download_threads_test xod_download_cycle_test)
    tavor_test(${test}
        SOURCES
            ${test}.cpp
            xod_download_fixture.cpp
            "${TAVOR_ASSIST_DIR}/xod_download.cpp"
            "${TAVOR_ASSIST_DIR}/xod_list.cpp"
        USES tavor_parse)
    target_link_options(${test} PRIVATE -Wl,--wrap=malloc)
endforeach()

find_package(ZLIB REQUIRED) # packs a body
tavor_test(xod_http_test
    SOURCES xod_http_test.cpp ../support/http_server.cpp ../support/format_fault.cpp
    USES tavor_assist board_interpose_local ZLIB::ZLIB)
target_link_options(xod_http_test PRIVATE
    -Wl,--wrap=snprintf -Wl,--wrap=__snprintf_chk
    -Wl,--wrap=_Z8xod_curlv
    -Wl,--wrap=mbedtls_md5_starts_ret -Wl,--wrap=mbedtls_md5_update_ret -Wl,--wrap=mbedtls_md5_finish_ret)

tavor_test(xod_curl_test SOURCES xod_curl_test.cpp "${TAVOR_ASSIST_DIR}/xod_curl.cpp" USES tavor_options ${CMAKE_DL_LIBS})
target_include_directories(xod_curl_test SYSTEM PRIVATE "${CURL_INCLUDE_DIRS}")
target_link_options(xod_curl_test PRIVATE -Wl,--wrap=dlopen -Wl,--wrap=dlsym -Wl,--wrap=dlclose)

tavor_test(xod_file_test
    SOURCES xod_file_test.cpp "${TAVOR_ASSIST_DIR}/xod_file.cpp"
    USES tavor_mux tavor_parse board_interpose_local)
target_link_options(xod_file_test PRIVATE -Wl,--wrap=time -Wl,--wrap=fseek)
tavor_test(xod_host_aiding_test
    SOURCES xod_host_aiding_test.cpp "${TAVOR_ASSIST_DIR}/xod_file.cpp" "${TAVOR_ASSIST_DIR}/xod_host_aiding.cpp"
    USES tavor_mux tavor_parse board_interpose_local)
target_link_options(xod_host_aiding_test PRIVATE -Wl,--wrap=usleep -Wl,--wrap=fseeko)
