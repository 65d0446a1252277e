# Read by cpack before it packs: dpkg tells from the library what libappcore1 depends on.
file(TOUCH ${CPACK_APPCORE_FOLDER}/debian/control)
execute_process(COMMAND dpkg-shlibdeps -O libappcore.so WORKING_DIRECTORY ${CPACK_APPCORE_FOLDER}
    OUTPUT_VARIABLE depends OUTPUT_STRIP_TRAILING_WHITESPACE
    ERROR_VARIABLE said RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "dpkg-shlibdeps: ${said}")
endif()
string(REPLACE "shlibs:Depends=" "" CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "${depends}")
