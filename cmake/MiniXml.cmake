# Mini-XML, found by pkg-config: target PkgConfig::MXML.
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
    pkg_check_modules(MXML IMPORTED_TARGET mxml)
endif()
if(NOT MXML_FOUND AND CMAKE_CROSSCOMPILING)
    message(FATAL_ERROR "Mini-XML for ${CMAKE_SYSTEM_PROCESSOR} was not found. "
                        "scripts/fetch-mxml gets it for Debian's architectures.")
elseif(NOT MXML_FOUND)
    message(FATAL_ERROR "Mini-XML was not found. On Debian: apt-get install pkg-config libmxml-dev")
endif()
