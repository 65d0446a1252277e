# Warnings, hardening and link flags of everything built here.  Another build's warnings are no errors
# here, and stop at the headers: what it heeds, and with which compiler, is not known.
set(APPCORE_WARNINGS -Wall -Wextra -Wformat=2 -Wconversion -Wshadow)
if(APPCORE_WERROR)
    list(APPEND APPCORE_WARNINGS -Werror)
elseif(NOT PROJECT_IS_TOP_LEVEL)
    list(APPEND APPCORE_WARNINGS -Wno-error)
    set(CMAKE_COMPILE_WARNING_AS_ERROR OFF)
endif()
if(NOT PROJECT_IS_TOP_LEVEL)
    set_property(DIRECTORY PROPERTY SYSTEM ON)
endif()
set(CMAKE_UNITY_BUILD OFF) # what is local to one source file may have a namesake in another
add_library(appcore_flags INTERFACE)
target_compile_options(appcore_flags INTERFACE
    ${APPCORE_WARNINGS}
    # GCC's -Wconversion leaves signs alone in C++; so does ours with clang.
    $<$<CXX_COMPILER_ID:Clang>:-Wno-sign-conversion>
    # Which lock guards what: src/base/thread_safety.h.
    $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
    -fno-semantic-interposition -fstack-protector
    $<$<COMPILE_LANGUAGE:CXX>:-fno-exceptions -fno-rtti>)
# For a file with frames larger than a page; any other is warned of, where the code is a device's.  On
# 32-bit ARM the probes would cost every function a memory access and twelve bytes.
set(APPCORE_FRAME_WARNING)
if(NOT APPCORE_CHECKS AND NOT APPCORE_SANITIZE)
    set(APPCORE_FRAME_WARNING $<$<NOT:$<CONFIG:Debug>>:-Wframe-larger-than=4000>)
endif()
include(CheckCXXCompilerFlag)
check_cxx_compiler_flag(-fstack-clash-protection APPCORE_HAS_STACK_CLASH_PROTECTION)
set(APPCORE_LARGE_FRAME_OPTIONS -Wno-frame-larger-than)
if(APPCORE_HAS_STACK_CLASH_PROTECTION)
    list(APPEND APPCORE_LARGE_FRAME_OPTIONS -fstack-clash-protection)
endif()
# Large files, and times beyond 2038, on 32-bit machines.  Only inside: the public headers have
# neither sizes of files nor times of the system's.
set(APPCORE_WIDE_DEFINITIONS)
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
    set(APPCORE_WIDE_DEFINITIONS _FILE_OFFSET_BITS=64 _TIME_BITS=64)
    target_compile_definitions(appcore_flags INTERFACE ${APPCORE_WIDE_DEFINITIONS})
endif()
# Nothing here throws, and a debugger finds the frames in the debug information.  Every function and
# object in a section of its own: what nobody uses is left out of the shared library.
set(APPCORE_UNWIND_OPTIONS -fno-asynchronous-unwind-tables -fno-unwind-tables)
target_compile_options(appcore_flags INTERFACE
    ${APPCORE_UNWIND_OPTIONS} -ffunction-sections -fdata-sections)
# Everything is bound when the library is loaded: a call through the table of addresses needs no stub,
# and is shorter than the two together where an instruction holds the way there.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64)$")
    target_compile_options(appcore_flags INTERFACE -fno-plt)
endif()
# The same sources give the same bytes in whatever folder they are built: no path of it and no time is
# left in them.  A debug build keeps the paths, so that a debugger finds the sources from anywhere.
set(APPCORE_PREFIX_MAP)
if(PROJECT_IS_TOP_LEVEL)
    set(APPCORE_PREFIX_MAP "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_SOURCE_DIR}=.>"
                           "$<$<NOT:$<CONFIG:Debug>>:-ffile-prefix-map=${PROJECT_BINARY_DIR}=build>")
    add_compile_options(${APPCORE_PREFIX_MAP})
    add_link_options(${APPCORE_PREFIX_MAP}) # for what is compiled there
endif()
set(CMAKE_CXX_ARCHIVE_CREATE "<CMAKE_AR> qcD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_APPEND "<CMAKE_AR> qD <TARGET> <LINK_FLAGS> <OBJECTS>")
set(CMAKE_CXX_ARCHIVE_FINISH "<CMAKE_RANLIB> -D <TARGET>")
# The processors of devices have one kind of atomic operations: no call to choose, nor a look at the
# processor when the library is loaded.
if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
    check_cxx_compiler_flag(-mno-outline-atomics APPCORE_HAS_INLINE_ATOMICS)
    if(APPCORE_HAS_INLINE_ATOMICS)
        target_compile_options(appcore_flags INTERFACE -mno-outline-atomics)
    endif()
endif()
# _FORTIFY_SOURCE needs optimisation, and the sanitizers replace the functions that it checks.
if(NOT APPCORE_SANITIZE)
    target_compile_options(appcore_flags INTERFACE
        $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
endif()

if(APPCORE_CHECKS)
    add_compile_definitions(APPCORE_CHECKS=1)
endif()

# For the tests and examples.  A Thumb function's address is odd, and GCC's check takes a reference
# to a function for a misaligned one; the library has none.
set(APPCORE_THUMB_OPTIONS)
if(APPCORE_SANITIZE STREQUAL "undefined" AND CMAKE_SYSTEM_PROCESSOR STREQUAL "arm")
    set(APPCORE_THUMB_OPTIONS -fno-sanitize=alignment)
endif()

if(APPCORE_SANITIZE)
    add_compile_options(-fsanitize=${APPCORE_SANITIZE} -fno-omit-frame-pointer)
    add_link_options(-fsanitize=${APPCORE_SANITIZE})
    if(APPCORE_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

# -Bsymbolic-functions binds the library's own calls directly; the dynamic list keeps the host
# platform's functions replaceable by the application.  nodelete: a detached thread may still run
# its last instructions when the library would be unmapped.  Nothing is constructed when the library is
# loaded or destroyed at exit, so it goes without the files that would see to that.
set(APPCORE_SHARED_LINK_OPTIONS
    ${APPCORE_UNWIND_OPTIONS} # said again where what has debug information is optimised at link time
    -nostartfiles -static-libgcc -Wl,--as-needed -Wl,-z,relro -Wl,-z,now -Wl,-z,nodelete -Wl,-z,noexecstack
    -Wl,--gc-sections -Wl,-z,noseparate-code
    -Wl,-Bsymbolic-functions
    -Wl,--dynamic-list=${PROJECT_SOURCE_DIR}/cmake/host.list
    -Wl,--version-script=${APPCORE_MAP})
# The sanitizers' and, on a device, the host application's functions come at load time.
if(NOT APPCORE_SANITIZE AND APPCORE_HOST STREQUAL "standin")
    list(APPEND APPCORE_SHARED_LINK_OPTIONS -Wl,--no-undefined)
endif()
set(APPCORE_SHARED_LINK_DEPENDS
    ${PROJECT_SOURCE_DIR}/cmake/host.list ${APPCORE_MAP})
