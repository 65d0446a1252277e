# Mini-XML, version 3 or 4, found by pkg-config: target PkgConfig::MXML.  MXML_MODULE_NAME is the
# package that was found, and that the installed packages name.
set(APPCORE_MXML "auto" CACHE STRING
    "Version of Mini-XML: 3, 4, or auto, which prefers 3 where both are there")
set_property(CACHE APPCORE_MXML PROPERTY STRINGS auto 3 4)
if(APPCORE_MXML STREQUAL "auto")
    set(modules mxml mxml4)
elseif(APPCORE_MXML STREQUAL "3")
    set(modules mxml<4)
elseif(APPCORE_MXML STREQUAL "4")
    set(modules mxml4 mxml>=4)
else()
    message(FATAL_ERROR "APPCORE_MXML is '${APPCORE_MXML}'; it must be auto, 3 or 4")
endif()
list(JOIN modules " or " wanted)
find_package(PkgConfig)
if(PKG_CONFIG_FOUND)
    pkg_search_module(MXML IMPORTED_TARGET ${modules})
endif()
if(NOT MXML_FOUND AND CMAKE_CROSSCOMPILING)
    message(FATAL_ERROR "Mini-XML (pkg-config: ${wanted}) for ${CMAKE_SYSTEM_PROCESSOR} was not found. "
                        "scripts/fetch-mxml gets version 3 for Debian's architectures.")
elseif(NOT MXML_FOUND)
    message(FATAL_ERROR "Mini-XML (pkg-config: ${wanted}) was not found. "
                        "On Debian: apt-get install pkg-config libmxml-dev")
endif()
