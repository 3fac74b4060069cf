# The unit tests on Linux, with 16-bit wide characters and under the sanitizers; see cmake/native.cmake.

if(NOT unit_sources)
    return()
endif()

add_executable(unit_tests ${unit_sources} native/wide.c)
target_include_directories(unit_tests PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(unit_tests PRIVATE vtfltmgr_core googletest project_warnings)
add_test(NAME ${VT_CONFIGURATION}.unit_tests COMMAND unit_tests --gtest_brief=1)

add_test(NAME ${VT_CONFIGURATION}.no_wide_imports
    COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/native/check_wide.sh" "$<TARGET_FILE:unit_tests>" "${CMAKE_NM}")
