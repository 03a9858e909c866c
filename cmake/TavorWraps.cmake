# On a machine of 32 bits the headers link these functions by other names, for times and offsets of 64 bits (TavorCompile.cmake). A test
# program that replaces one of them (--wrap) replaces that name too, and its source means that.
set(TAVOR_RENAMED
    time=__time64 clock_gettime=__clock_gettime64 gettimeofday=__gettimeofday64 timespec_get=__timespec_get64
    nanosleep=__nanosleep64 localtime_r=__localtime64_r select=__select64
    timer_settime=__timer_settime64 timer_gettime=__timer_gettime64
    ioctl=__ioctl_time64 fcntl=__fcntl_time64 setsockopt=__setsockopt64
    open=open64 fseeko=fseeko64)

function(tavor_rename_wraps target property)
    get_target_property(options ${target} ${property})
    foreach(pair ${TAVOR_RENAMED})
        string(REGEX MATCH "(.*)=(.*)" pair "${pair}")
        if("-Wl,--wrap=${CMAKE_MATCH_1}" IN_LIST options)
            list(REMOVE_ITEM options "-Wl,--wrap=${CMAKE_MATCH_1}") # the library of the tests links it as it is
            list(APPEND options "-Wl,--wrap=${CMAKE_MATCH_2}")
            set_property(TARGET ${target} PROPERTY ${property} "${options}")
            target_compile_definitions(${target} PRIVATE
                __wrap_${CMAKE_MATCH_1}=__wrap_${CMAKE_MATCH_2} __real_${CMAKE_MATCH_1}=__real_${CMAKE_MATCH_2})
        endif()
    endforeach()
endfunction()

# Of all programs and objects of a folder and those below it.
function(tavor_rename_wraps_below directory)
    get_property(targets DIRECTORY "${directory}" PROPERTY BUILDSYSTEM_TARGETS)
    foreach(target ${targets})
        get_target_property(type ${target} TYPE)
        if(type STREQUAL "EXECUTABLE")
            tavor_rename_wraps(${target} LINK_OPTIONS)
        elseif(type STREQUAL "OBJECT_LIBRARY")
            tavor_rename_wraps(${target} INTERFACE_LINK_OPTIONS)
        endif()
    endforeach()
    get_property(folders DIRECTORY "${directory}" PROPERTY SUBDIRECTORIES)
    foreach(folder ${folders})
        tavor_rename_wraps_below("${folder}")
    endforeach()
endfunction()

if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    tavor_rename_wraps_below("${CMAKE_CURRENT_SOURCE_DIR}")
endif()
