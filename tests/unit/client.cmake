add_library(client_test_support STATIC ../support/client_fake_daemon.cpp ../support/client_tool.cpp)
target_link_libraries(client_test_support PUBLIC tavorctl_core tavor_test_support)

tavor_test(client_records_test SOURCES client_records_test.cpp USES tavorctl_core)
tavor_test(client_print_test SOURCES client_print_test.cpp USES tavorctl_core)
tavor_test(client_options_test SOURCES client_options_test.cpp USES tavorctl_core)
tavor_test(client_connection_test SOURCES client_connection_test.cpp USES client_test_support)
tavor_test(client_exchange_test SOURCES client_exchange_test.cpp USES client_test_support)

find_package(nlohmann_json 3.11 REQUIRED)
tavor_test(tavorctl_test LABEL system SOURCES ../system/tavorctl_test.cpp
    USES client_test_support nlohmann_json::nlohmann_json)
target_compile_definitions(client_options_test PRIVATE TAVOR_VERSION_FOR_TEST="${PROJECT_VERSION}")
target_compile_definitions(tavorctl_test PRIVATE TAVOR_CTL_PROGRAM="$<TARGET_FILE:tavorctl>")
add_dependencies(tavorctl_test tavorctl)
tavor_test(client_download_log_test SOURCES client_download_log_test.cpp USES tavorctl_core)
tavor_test(tavorctl_download_test LABEL system SOURCES ../system/tavorctl_download_test.cpp USES client_test_support)
target_compile_definitions(tavorctl_download_test PRIVATE TAVOR_CTL_PROGRAM="$<TARGET_FILE:tavorctl>")
add_dependencies(tavorctl_download_test tavorctl)
