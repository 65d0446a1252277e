# Libraries, headers, the CMake package and the pkg-config file.
include(CMakePackageConfigHelpers)
set_target_properties(appcore_static PROPERTIES EXPORT_NAME static)
install(TARGETS appcore appcore_static EXPORT appcoreTargets)
install(DIRECTORY include/appcore TYPE INCLUDE FILES_MATCHING PATTERN "*.h")

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/appcore)
install(EXPORT appcoreTargets NAMESPACE appcore:: DESTINATION ${package_dir})
configure_package_config_file(cmake/appcoreConfig.cmake.in appcoreConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(appcoreConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/appcoreConfig.cmake
              ${PROJECT_BINARY_DIR}/appcoreConfigVersion.cmake DESTINATION ${package_dir})

set(APPCORE_PC_LIBS_PRIVATE -pthread)
if(APPCORE_HOST STREQUAL "device")
    string(APPEND APPCORE_PC_LIBS_PRIVATE " -lqor")
endif()
# Relative to the file's own place, so that the prefix may be chosen at installation.
file(RELATIVE_PATH APPCORE_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/appcore.pc.in appcore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/appcore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
