# Keeps what will be stripped from LIBRARY in FOLDER, where a debugger looks for it by the build id.
execute_process(COMMAND ${READELF} -n ${LIBRARY} OUTPUT_VARIABLE notes COMMAND_ERROR_IS_FATAL ANY)
if(NOT notes MATCHES "Build ID: ([0-9a-f][0-9a-f])([0-9a-f]+)")
    message(FATAL_ERROR "No build id in ${LIBRARY}")
endif()
file(REMOVE_RECURSE ${FOLDER})
file(MAKE_DIRECTORY ${FOLDER}/.build-id/${CMAKE_MATCH_1})
execute_process(COMMAND ${OBJCOPY} --only-keep-debug ${LIBRARY}
                        ${FOLDER}/.build-id/${CMAKE_MATCH_1}/${CMAKE_MATCH_2}.debug
    COMMAND_ERROR_IS_FATAL ANY)
