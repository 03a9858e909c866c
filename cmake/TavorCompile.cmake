# One interface target carries every compile and link option, so that no target is built more loosely than another.
set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_C_STANDARD 11)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")

find_program(TAVOR_CCACHE ccache)
if(TAVOR_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
    set(CMAKE_CXX_COMPILER_LAUNCHER "${TAVOR_CCACHE}")
endif()

find_package(Threads REQUIRED)
include(CheckPIESupported)
check_pie_supported()

# g++ 12 at its highest optimisation takes "text" + std::string and copies into fresh vectors for overlaps and overflows.
# Programs of tests (property TAVOR_TEST) are compiled without optimisation: with sanitizers that takes a quarter of
# the time, and what they measure is not speed. Fortified functions need it.
set(is_test "$<BOOL:$<TARGET_PROPERTY:TAVOR_TEST>>")
add_library(tavor_options INTERFACE)
target_include_directories(tavor_options INTERFACE "${PROJECT_SOURCE_DIR}/include")
target_compile_definitions(tavor_options INTERFACE _GNU_SOURCE)
if(CMAKE_SIZEOF_VOID_P EQUAL 4) # times behind 2038, files past 2 GiB; where pointers have 64 bits both are so anyway
    target_compile_definitions(tavor_options INTERFACE _FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()
# Warnings are errors in our presets (CMAKE_COMPILE_WARNING_AS_ERROR): another compiler's must stop nobody who only builds.
target_compile_options(tavor_options INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wformat=2
    -fstack-protector-strong -fno-strict-aliasing
    $<IF:$<CONFIG:Debug>,$<$<NOT:${is_test}>:-O1>,$<${is_test}:-O0>>
    $<$<AND:$<CONFIG:Release>,$<COMPILE_LANG_AND_ID:CXX,GNU>,$<VERSION_LESS:$<CXX_COMPILER_VERSION>,13>>:-Wno-restrict;-Wno-array-bounds>)
target_link_options(tavor_options INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack)
target_link_libraries(tavor_options INTERFACE Threads::Threads)

if(TAVOR_SANITIZE)
    target_compile_options(tavor_options INTERFACE
        -fsanitize=${TAVOR_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all
        $<$<CONFIG:Debug>:-g1>) # lines for the reports; the rest would double the time to compile
    target_link_options(tavor_options INTERFACE -fsanitize=${TAVOR_SANITIZE})
else()
    target_compile_options(tavor_options INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<OR:$<CONFIG:Debug>,${is_test}>>:-D_FORTIFY_SOURCE=2>)
endif()

# tavor_layer(NAME SOURCES file...): the layer src/NAME as the static library tavor_NAME. It uses every layer made before it.
function(tavor_layer name)
    cmake_parse_arguments(ARG "" "" "SOURCES" ${ARGN})
    list(TRANSFORM ARG_SOURCES PREPEND "${name}/")
    add_library(tavor_${name} STATIC ${ARG_SOURCES})
    get_property(lower GLOBAL PROPERTY TAVOR_LAYERS)
    target_link_libraries(tavor_${name} PUBLIC tavor_options ${lower})
    target_include_directories(tavor_${name} PUBLIC "${PROJECT_SOURCE_DIR}/src")
    set_property(GLOBAL PROPERTY TAVOR_LAYERS tavor_${name} ${lower})
endfunction()
