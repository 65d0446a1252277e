# The functions that fault injection replaces: the rows of support/fault.h.
set(fault_header ${CMAKE_CURRENT_LIST_DIR}/fault.h)
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${fault_header})
file(READ ${fault_header} fault_rows)
string(REGEX MATCHALL "\n +X\\([a-zA-Z0-9_]+" APPCORE_WRAPPED "${fault_rows}")
list(TRANSFORM APPCORE_WRAPPED REPLACE "\n +X\\(" "")
