# Debian's packages, as scripts/package makes them: libappcore1 is the component runtime, libappcore-dev
# the component development, libappcore1-dbgsym what is stripped from the library.  Included before GNUInstallDirs, for it tells where their files go.
set(architecture ${CMAKE_LIBRARY_ARCHITECTURE}) # such as arm-linux-gnueabihf, from the compiler
set(CMAKE_INSTALL_LIBDIR lib/${architecture})
set(CMAKE_INSTALL_DOCDIR share/doc/libappcore-dev)
execute_process(COMMAND dpkg-architecture -t ${architecture} -q DEB_HOST_ARCH ERROR_QUIET
    OUTPUT_VARIABLE CPACK_DEBIAN_PACKAGE_ARCHITECTURE OUTPUT_STRIP_TRAILING_WHITESPACE
    COMMAND_ERROR_IS_FATAL ANY)

set(CPACK_PACKAGE_CONTACT "the appcore authors <appcore@localhost>" CACHE STRING
    "Maintainer of the packages")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1 CACHE STRING "Number of the packages made of one version")
set(version ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})

# Each package has the licence and both lists of changes under its own name.
set(folder ${PROJECT_BINARY_DIR}/debian)
string(TIMESTAMP date "%a, %d %b %Y %H:%M:%S +0000" UTC) # of SOURCE_DATE_EPOCH, if that is set
file(WRITE ${folder}/changelog.Debian "appcore (${version}) unstable; urgency=medium\n
  * See changelog.gz.\n\n -- ${CPACK_PACKAGE_CONTACT}  ${date}\n")
file(COPY_FILE CHANGELOG.md ${folder}/changelog)
execute_process(COMMAND gzip -9nf changelog changelog.Debian WORKING_DIRECTORY ${folder}
    COMMAND_ERROR_IS_FATAL ANY)
set(components runtime development debug)
set(packages libappcore1 libappcore-dev libappcore1-dbgsym)
add_compile_options(-g)
foreach(component package IN ZIP_LISTS components packages)
    install(FILES LICENSE DESTINATION share/doc/${package} RENAME copyright
        COMPONENT ${component} EXCLUDE_FROM_ALL)
    install(FILES ${folder}/changelog.gz ${folder}/changelog.Debian.gz
        DESTINATION share/doc/${package} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# CPack would call ldconfig from scripts of the package's; a trigger calls it once for all packages.
file(WRITE ${folder}/triggers "activate-noawait ldconfig\n")
file(WRITE ${folder}/shlibs "libappcore 1 libappcore1 (>= ${PROJECT_VERSION})\n")

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_PACKAGE_NAME appcore)
set(CPACK_STRIP_FILES ON)
set(CPACK_VERBATIM_VARIABLES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_MULTIARCH same) # heeded by CMake 3.31 and later

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libappcore1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Tasks, timers, queues, memory pools, logs, sockets and more: what programs need
that were linked to the shared library.")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${folder}/triggers ${folder}/shlibs)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libappcore-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "Headers, the archive, what CMake and pkg-config need, documents and examples.")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
    "libappcore1 (= ${version}), libmxml-dev")
set(CPACK_DEBIAN_DEBUG_PACKAGE_NAME libappcore1-dbgsym)
set(CPACK_DEBIAN_DEBUG_PACKAGE_SECTION debug)
set(CPACK_COMPONENT_DEBUG_DESCRIPTION
    "Debug information of the shared library, for gdb and core files.")
set(CPACK_DEBIAN_DEBUG_PACKAGE_DEPENDS "libappcore1 (= ${version})")
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SUGGESTS "cmake, pkg-config")

# What libappcore1 depends on is read from the library, where dpkg knows the other libraries.  The C
# library of a cross compiler tells its version; an older one is not known to do.
if(CMAKE_CROSSCOMPILING)
    execute_process(COMMAND ${CMAKE_C_COMPILER} -E -dM -include features.h -x c /dev/null
        OUTPUT_VARIABLE macros COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCH "__GLIBC_MINOR__ ([0-9]+)" found "${macros}")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libc6 (>= 2.${CMAKE_MATCH_1}), libmxml1" CACHE STRING
        "What libappcore1 depends on")
else()
    set(CPACK_PROJECT_CONFIG_FILE ${PROJECT_SOURCE_DIR}/cmake/DebianDepends.cmake)
    set(CPACK_APPCORE_FOLDER ${PROJECT_BINARY_DIR})
endif()
include(CPack)
