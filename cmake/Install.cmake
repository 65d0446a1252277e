# Libraries, headers, the CMake package, the pkg-config file and the documents.  Component runtime is
# what a program needs that was linked to the shared library; development is all the rest.
include(CMakePackageConfigHelpers)
set_target_properties(appcore_static PROPERTIES EXPORT_NAME static)
install(TARGETS appcore appcore_static EXPORT appcoreTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE COMPONENT development)
install(DIRECTORY include/appcore TYPE INCLUDE COMPONENT development
    FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/appcore)
install(EXPORT appcoreTargets NAMESPACE appcore:: DESTINATION ${package_dir}
    COMPONENT development)
configure_package_config_file(cmake/appcoreConfig.cmake.in appcoreConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(appcoreConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/appcoreConfig.cmake
              ${PROJECT_BINARY_DIR}/appcoreConfigVersion.cmake
        DESTINATION ${package_dir} COMPONENT development)

set(APPCORE_PC_LIBS_PRIVATE -pthread)
if(APPCORE_HOST STREQUAL "device")
    string(APPEND APPCORE_PC_LIBS_PRIVATE " -lqor")
endif()
# Relative to the file's own place, so that the prefix may be chosen at installation.
file(RELATIVE_PATH APPCORE_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/appcore.pc.in appcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/appcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)

install(FILES LICENSE README.md CHANGELOG.md TYPE DOC COMPONENT development)
install(DIRECTORY docs TYPE DOC COMPONENT development
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN mainpage.md EXCLUDE)
install(DIRECTORY examples TYPE DOC COMPONENT development
    FILES_MATCHING REGEX "\\.(c|cpp|h|xml)$")

# Where gdb looks for what belongs to the library, below the prefix chosen at installation.
install(FILES share/gdb/appcore.py RENAME $<TARGET_FILE_NAME:appcore>-gdb.py COMPONENT development
        DESTINATION ${CMAKE_INSTALL_DATADIR}/gdb/auto-load\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR})

# By the build id, which a core file has, too.
if(PROJECT_IS_TOP_LEVEL AND APPCORE_DEBIAN)
    add_custom_command(TARGET appcore POST_BUILD VERBATIM
        COMMAND ${CMAKE_COMMAND} -D OBJCOPY=${CMAKE_OBJCOPY} -D READELF=${CMAKE_READELF}
                -D LIBRARY=$<TARGET_FILE:appcore> -D FOLDER=${PROJECT_BINARY_DIR}/debug
                -P ${PROJECT_SOURCE_DIR}/cmake/DebugFile.cmake)
    install(DIRECTORY ${PROJECT_BINARY_DIR}/debug DESTINATION lib COMPONENT debug)
endif()
