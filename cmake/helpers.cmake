# Small helpers of the CMake files.

# Tests are named after the build folder (release.unit_tests), so that the results of several build folders can
# stand in one list.
cmake_path(GET CMAKE_BINARY_DIR FILENAME VT_CONFIGURATION)

# vt_glob(<variable> <pattern>...): sets the variable to the sources that match, below the current folder.
#
# Sources are found, not listed: every file in a source folder belongs to the folder's target, and
# CONFIGURE_DEPENDS has the build look again each time, so adding a file is all there is to do.
function(vt_glob variable)
    list(TRANSFORM ARGN PREPEND "${CMAKE_CURRENT_SOURCE_DIR}/")
    file(GLOB found CONFIGURE_DEPENDS LIST_DIRECTORIES false ${ARGN})
    set(${variable} "${found}" PARENT_SCOPE)
endfunction()

# vt_split_debug(<target>): in the release build, moves a program's or DLL's debug information into a file of its own
# beside it, NAME.debug, which a debugger finds by the link that is left. What is shipped is the small part.
function(vt_split_debug target)
    if(NOT WIN32 OR NOT CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
        return()
    endif()
    add_custom_command(TARGET ${target} POST_BUILD
        COMMAND ${CMAKE_OBJCOPY} --only-keep-debug $<TARGET_FILE_NAME:${target}> $<TARGET_FILE_NAME:${target}>.debug
        COMMAND ${CMAKE_STRIP} --strip-all $<TARGET_FILE_NAME:${target}>
        COMMAND ${CMAKE_OBJCOPY} --add-gnu-debuglink=$<TARGET_FILE_NAME:${target}>.debug $<TARGET_FILE_NAME:${target}>
        WORKING_DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}"
        COMMENT "Splitting the debug information off $<TARGET_FILE_NAME:${target}>"
        VERBATIM)
endfunction()

# vt_in_batches(<target> [<source that stands alone>...]): has the target's sources compiled eight at a time, one behind
# the other in one file: half the time of the compiler goes into the headers. For tools and tests, whose headers are large
# templates; the library's sources are compiled one by one. Who edits a tool may prefer VT_BATCHES=OFF: then less is
# compiled again. In a batch the names in unnamed namespaces have to differ.
option(VT_BATCHES "Compile the sources of tools and tests in batches" ON)
function(vt_in_batches target)
    if(VT_BATCHES)
        set_target_properties(${target} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE 8)
        set_source_files_properties(${ARGN} PROPERTIES SKIP_UNITY_BUILD_INCLUSION ON)
    endif()
endfunction()

# vt_add_program(<name> <source>...): a Windows command-line program with wmain as its entry, so that arguments
# arrive in UTF-16.
function(vt_add_program name)
    add_executable(${name} ${ARGN})
    target_link_options(${name} PRIVATE -municode)
    target_link_libraries(${name} PRIVATE project_warnings)
    vt_split_debug(${name})
endfunction()
