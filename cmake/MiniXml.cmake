# Mini-XML, found by pkg-config.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(MXML IMPORTED_TARGET mxml)
endif()
if(NOT MXML_FOUND)
    message(FATAL_ERROR "Mini-XML was not found. On Debian: apt-get install pkg-config libmxml-dev")
endif()
add_library(appcore::mxml ALIAS PkgConfig::MXML)
