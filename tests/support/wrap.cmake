# The functions that fault injection replaces: the rows of support/fault_rows.h.
set(fault_rows_header ${CMAKE_CURRENT_LIST_DIR}/fault_rows.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${fault_rows_header})
file(READ ${fault_rows_header} fault_rows)
string(REGEX MATCHALL "\n[A-Z]+\\([a-zA-Z0-9_]+" APPCORE_WRAPPED "${fault_rows}")
list(TRANSFORM APPCORE_WRAPPED REPLACE "\n[A-Z]+\\(" "")

# On 32-bit machines the library calls some of them by the name of their variant for 64-bit times or
# file sizes: the gate stands in front of that one.
if(APPCORE_WIDE_DEFINITIONS)
    set(fault_wide
        pthread_mutex_timedlock:__pthread_mutex_timedlock64
        pthread_mutex_clocklock:__pthread_mutex_clocklock64
        pthread_cond_timedwait:__pthread_cond_timedwait64
        clock_gettime:__clock_gettime64 gmtime_r:__gmtime64_r timegm:__timegm64
        fopen:fopen64 ftruncate:ftruncate64 fcntl:__fcntl_time64
        getsockopt:__getsockopt64 setsockopt:__setsockopt64
        recvmsg:__recvmsg64)
    foreach(pair ${fault_wide})
        string(REGEX MATCH "(.+):(.+)" _ ${pair})
        set(name ${CMAKE_MATCH_1})
        set(wide ${CMAKE_MATCH_2})
        list(TRANSFORM APPCORE_WRAPPED REPLACE "^${name}$" ${wide})
        list(APPEND fault_names __real_${name}=__real_${wide} __wrap_${name}=__wrap_${wide})
    endforeach()
    set_source_files_properties(support/fault.cpp PROPERTIES COMPILE_DEFINITIONS "${fault_names}")
endif()
