# The functions that fault injection replaces: name, number of parameters, and the variant
# for 64-bit times or file sizes that 32-bit machines call instead.
set(fault_gates
    free/1 fcntl/3/__fcntl_time64 malloc/1 calloc/2 realloc/2 strdup/1 vasprintf/3
    pthread_create/4 pthread_attr_init/1 pthread_attr_setinheritsched/2
    pthread_mutex_init/2 _AppConditionSignal/1 _AppConditionWait/3
    clock_gettime/2/__clock_gettime64 gmtime_r/2/__gmtime64_r timegm/1/__timegm64
    fopen/2/fopen64 fdopen/2 write/3 writev/3 ftruncate/2/ftruncate64 rename/2
    socket/3 bind/3 connect/3 setsockopt/5/__setsockopt64 getsockname/3 getpeername/3
    epoll_create1/1 epoll_ctl/4 epoll_wait/4 recv/4 recvmsg/3/__recvmsg64 recvfrom/6 send/4 sendto/6
    inet_pton/3 inet_ntop/4 getifaddrs/1 iconv_open/2 iconv/5
    mxmlGetOpaque/1 mxmlGetCDATA/1 _AppVsnprintf/4 AppMemPoolMalloc/2 AppTaskSetTimer/4)
foreach(gate ${fault_gates})
    string(REPLACE "/" ";" gate ${gate})
    list(POP_FRONT gate name parameters wide)
    string(APPEND gates_text "GATE(${name}, ${parameters})\n")
    if(wide AND APPCORE_WIDE_DEFINITIONS)
        list(APPEND fault_names __real_${name}=__real_${wide} __wrap_${name}=__wrap_${wide})
        set(name ${wide})
    endif()
    list(APPEND APPCORE_WRAPPED -Wl,--wrap=${name})
endforeach()
file(CONFIGURE OUTPUT support/fault_gates.h CONTENT "${gates_text}" @ONLY)
set_source_files_properties(support/fault.cpp PROPERTIES COMPILE_DEFINITIONS "${fault_names}")
