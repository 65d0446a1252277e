# The archive: one object, in which only the exported names are global, and these are hidden, so that
# no program and no plug-in hands them on.  What was to be optimised at link time is compiled here.
# Beside it the host's functions under their own names, drawn in by the application's own calls.
if(NOT CMAKE_OBJCOPY)
    message(FATAL_ERROR "objcopy was not found. On Debian: apt-get install binutils")
endif()

# Where a name is hidden in one of the objects that are linked, it is hidden in the result.
list(TRANSFORM APPCORE_EXPORTS REPLACE ".+" "\".globl \\0\\\\n.hidden \\0\\\\n\"" OUTPUT_VARIABLE lines)
list(JOIN lines "\n    " lines)
file(CONFIGURE OUTPUT hidden.cpp CONTENT "__asm__(${lines});\n" @ONLY)
add_library(appcore_hidden OBJECT ${PROJECT_BINARY_DIR}/hidden.cpp)
set_target_properties(appcore_hidden PROPERTIES INTERPROCEDURAL_OPTIMIZATION OFF)
target_compile_options(appcore_hidden PRIVATE -fno-lto)

# The stand-ins themselves are global, for the object beside it.
list(JOIN APPCORE_EXPORTS "\n" names)
file(CONFIGURE OUTPUT global_names.txt CONTENT "${names}\n_AppQor*\n_AppIpc*\n" @ONLY)

# Told what the compiler was told; what it makes at this point has sections as everywhere.
separate_arguments(relink UNIX_COMMAND "${CMAKE_CXX_FLAGS}")
string(REGEX MATCH "-fuse-ld=[^ ]+" linker "${CMAKE_SHARED_LINKER_FLAGS}")
list(APPEND relink ${linker} ${APPCORE_PREFIX_MAP} ${APPCORE_UNWIND_OPTIONS} -ffunction-sections -fdata-sections -nostdlib -r)
if(CMAKE_CXX_COMPILER_TARGET)
    list(APPEND relink ${CMAKE_CXX_COMPILE_OPTIONS_TARGET}${CMAKE_CXX_COMPILER_TARGET})
endif()
if(CMAKE_INTERPROCEDURAL_OPTIMIZATION)
    list(APPEND relink ${CMAKE_CXX_COMPILE_OPTIONS_IPO})
endif()
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    list(APPEND relink -flinker-output=nolto-rel)
endif()

set(folder ${PROJECT_BINARY_DIR}/archive/$<CONFIG>)
set(objects $<TARGET_OBJECTS:appcore_objects> $<TARGET_OBJECTS:appcore_hidden>)
add_custom_command(OUTPUT ${folder}/all.o
    COMMAND ${CMAKE_COMMAND} -E make_directory ${folder}
    COMMAND ${CMAKE_CXX_COMPILER} ${relink} -o ${folder}/all.o ${objects}
    DEPENDS ${objects} COMMENT "Linking the archive's object" COMMAND_EXPAND_LISTS VERBATIM)
# Groups have no meaning left: kept, one that a program's own code has too would be dropped here.
add_custom_command(OUTPUT ${folder}/appcore.o
    COMMAND ${CMAKE_OBJCOPY} --wildcard --keep-global-symbols=${PROJECT_BINARY_DIR}/global_names.txt
            --remove-section=.group ${folder}/all.o ${folder}/appcore.o
    DEPENDS ${folder}/all.o ${PROJECT_BINARY_DIR}/global_names.txt
    COMMENT "Closing the archive's object" VERBATIM)
add_library(appcore_static STATIC ${folder}/appcore.o ${APPCORE_HOST_OBJECTS})
set_target_properties(appcore_static PROPERTIES LINKER_LANGUAGE CXX)
if(PROJECT_IS_TOP_LEVEL AND APPCORE_DEBIAN) # with the library alone, see Install.cmake
    add_custom_command(TARGET appcore_static POST_BUILD VERBATIM
        COMMAND ${CMAKE_OBJCOPY} -D --strip-debug $<TARGET_FILE:appcore_static>)
endif()

# For the tests, which replace some of what is inside: open, and optimised as what is shipped but for
# what most of them stand in front of.
if(CMAKE_INTERPROCEDURAL_OPTIMIZATION)
    set(apart cross_linux/condition)
    set(open_objects ${folder}/open.o "$<FILTER:${objects},INCLUDE,${apart}>")
    add_custom_command(OUTPUT ${folder}/open.o
        COMMAND ${CMAKE_CXX_COMPILER} ${relink} -o ${folder}/open.o
                "$<FILTER:${objects},EXCLUDE,${apart}>"
        DEPENDS ${folder}/all.o COMMENT "Linking the tests' object" COMMAND_EXPAND_LISTS VERBATIM)
else()
    set(open_objects $<TARGET_OBJECTS:appcore_objects>)
endif()
add_library(appcore_open STATIC EXCLUDE_FROM_ALL ${open_objects} ${APPCORE_HOST_OBJECTS})
set_target_properties(appcore_open PROPERTIES LINKER_LANGUAGE CXX)
