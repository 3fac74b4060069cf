# The unit tests on Linux, with 16-bit wide characters and under the sanitizers; see cmake/native.cmake.

if(NOT unit_sources)
    return()
endif()

# What follows runs in one thread.
if(VT_SANITIZERS STREQUAL thread)
    include(double/double.cmake)
    return()
endif()

add_executable(unit_tests ${unit_sources} native/format.cpp native/wide.c)
target_include_directories(unit_tests PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(unit_tests PRIVATE vtfltmgr_core googletest project_warnings)
vt_in_batches(unit_tests)
add_test(NAME ${VT_CONFIGURATION}.unit_tests COMMAND unit_tests --gtest_brief=1)

add_test(NAME ${VT_CONFIGURATION}.no_wide_imports
    COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/native/check_wide.sh" "$<TARGET_FILE:unit_tests>" "${CMAKE_NM}")

# The machine model needs no Windows and no wide text either.
vt_glob(sim_model_sources sim/model_test.cpp ../sim/model/*.cpp)
if(sim_model_sources)
    add_executable(sim_model_tests ${sim_model_sources})
    target_include_directories(sim_model_tests PRIVATE "${PROJECT_SOURCE_DIR}/sim")
    target_link_libraries(sim_model_tests PRIVATE native_flags googletest project_warnings)
    add_test(NAME ${VT_CONFIGURATION}.sim_model_tests COMMAND sim_model_tests --gtest_brief=1)
endif()

# What vtlog makes of any file.
add_executable(vtlog_core_tests tools/vtlog_parser_test.cpp tools/vtlog_text_test.cpp native/wide.c)
target_link_libraries(vtlog_core_tests PRIVATE vtlog_core googletest project_warnings)
add_test(NAME ${VT_CONFIGURATION}.vtlog_core_tests COMMAND vtlog_core_tests --gtest_brief=1)

# What vtfltctl makes of any bitmap file.
vt_glob(bitmap_sources tools/vtfltctl_bitmap_*_test.cpp)
add_executable(vtfltctl_bitmap_tests ${bitmap_sources} native/wide.c)
target_link_libraries(vtfltctl_bitmap_tests PRIVATE vtfltctl_bitmap vtfltmgr_core googletest project_warnings)
# A decoder that shares nothing with the encoder under test.
find_package(PNG REQUIRED)
target_link_libraries(vtfltctl_bitmap_tests PRIVATE PNG::PNG)
add_test(NAME ${VT_CONFIGURATION}.vtfltctl_bitmap_tests COMMAND vtfltctl_bitmap_tests --gtest_brief=1)

# What vtbackup report makes of any figures.
add_executable(vtbackup_page_tests tools/vtbackup_page_test.cpp native/wide.c)
target_link_libraries(vtbackup_page_tests PRIVATE vtbackup_report googletest project_warnings)
add_test(NAME ${VT_CONFIGURATION}.vtbackup_page_tests COMMAND vtbackup_page_tests --gtest_brief=1)

# The format file for the lnav log viewer.
add_test(NAME ${VT_CONFIGURATION}.lnav_format
    COMMAND bash "${CMAKE_CURRENT_SOURCE_DIR}/tools/lnav/check_lnav.sh"
        "${PROJECT_SOURCE_DIR}/tools/vtlog/lnav/vtfltmgr_log.json" "${CMAKE_CURRENT_SOURCE_DIR}/tools/lnav/sample.log")

include(double/double.cmake)
if(TARGET double_flags)
    include(fuzz/fuzz.cmake)
endif()

# Every deliberate mistake of ./dev mutants still fits the sources, in one place each, and names programs that there are.
if(TARGET double_flags)
    set(mutants_programs --programs "${PROJECT_BINARY_DIR}")
endif()
add_test(NAME ${VT_CONFIGURATION}.mutant_entries
    COMMAND python3 -B "${CMAKE_CURRENT_SOURCE_DIR}/mutants/run.py" --list ${mutants_programs})
