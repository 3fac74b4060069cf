# The fuzzing targets: linked with libFuzzer, one program each (preset fuzz, VT_FUZZ), or with a replay of kept inputs,
# which is a native test. Both need Windows' headers, but not the double: see system.h.

option(VT_FUZZ "Build the fuzzing targets with libFuzzer (clang)" OFF)

set(fuzzed_sources
    src/api/device_query.cpp
    src/api/exports_volume.cpp
    src/api/volume_table.cpp
    src/apps/application_registry.cpp
    src/apps/bitmap_maintenance.cpp
    src/apps/directory_tree.cpp
    src/apps/mutex_controller.cpp
    src/apps/resync_lists.cpp
    src/apps/resync_store.cpp
    src/apps/resync_text.cpp
    src/apps/volume_name.cpp
    src/apps/volume_walk.cpp
    src/bitmap/container.cpp
    src/bitmap/container_files.cpp
    src/bitmap/dump.cpp
    src/bitmap/manager.cpp
    src/bitmap/manager_driver.cpp
    src/bitmap/manager_merge.cpp
    src/bitmap/bits.cpp
    src/bitmap/bits_avx2.cpp
    src/bitmap/record.cpp
    src/driver/request.cpp
    src/log/breakpoint_block.cpp
    src/log/log_config.cpp
    src/log/log_message.cpp
    src/log/log_path.cpp
    src/log/message_text.cpp
    src/log/record_text.cpp
    src/log/share_memory.cpp
    src/registry/multi_string.cpp
    src/registry/multi_string_value.cpp
    src/registry/value.cpp
    tools/common/application_id.cpp
    tools/common/backup_locks.cpp
    tools/common/option_values.cpp
    tools/common/registry_value.cpp
    tools/common/size_text.cpp
    tools/common/volume_name.cpp
    tools/vtbackup/chain_reader.cpp
    tools/vtbackup/checksum.cpp
    tools/vtbackup/command_line.cpp
    tools/vtbackup/failure.cpp
    tools/vtbackup/index_format.cpp
    tools/vtbackup/lost_tracking.cpp
    tools/vtbackup/machine_state.cpp
    tools/vtbackup/manifest.cpp
    tools/vtbackup/repository.cpp
    tools/vtbackup/text.cpp
    tools/vtfltctl/bitmap_bits.cpp
    tools/vtfltctl/bitmap_file.cpp
    tools/vtfltctl/bitmap_file_text.cpp
    tools/vtfltctl/bitmap_name.cpp
    tools/vtfltctl/bitmap_numbers.cpp
    tools/vtfltctl/command_line.cpp
    tools/vtfltctl/commands.cpp
    tools/vtfltctl/failure.cpp
    tools/vtfltctl/findings.cpp
    tools/vtfltctl/findings_applications.cpp
    tools/vtfltctl/findings_files.cpp
    tools/vtfltctl/findings_lists.cpp
    tools/vtfltctl/list_entry.cpp
    tools/vtfltctl/machine_registry.cpp
    tools/vtfltctl/mend.cpp
    tools/vtfltctl/output.cpp
    tools/vtfltctl/volume_lists.cpp
    tools/vtlog/code_names.cpp
    tools/vtlog/command_line.cpp
    tools/vtlog/config_change.cpp
    tools/vtlog/entry_filter.cpp
    tools/vtlog/log_pieces.cpp
    tools/vtlog/record_parser.cpp
    tools/vtlog/show_filter.cpp
    tools/vtlog/time_text.cpp
    tools/vtlog/visible_text.cpp)
list(TRANSFORM fuzzed_sources PREPEND "${PROJECT_SOURCE_DIR}/")

vt_glob(fuzz_target_sources fuzz/targets/*.cpp)
add_library(fuzz_code OBJECT ${fuzzed_sources} ${fuzz_target_sources} fuzz/arguments.cpp
    fuzz/console.cpp fuzz/repository_files.cpp fuzz/system.cpp native/format.cpp native/wide.c)
target_include_directories(fuzz_code PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/src"
    "${PROJECT_SOURCE_DIR}/include" "${PROJECT_SOURCE_DIR}/tools")
target_compile_definitions(fuzz_code PUBLIC VTFLTMGR_BUILD)
target_link_libraries(fuzz_code PUBLIC double_flags header_libraries PRIVATE project_warnings)

if(VT_FUZZ)
    target_compile_options(fuzz_code PRIVATE -fsanitize=fuzzer-no-link)
    file(STRINGS fuzz/targets/targets.cpp entries REGEX "{\"[a-z_]+\", ")
    string(REGEX MATCHALL "{\"[a-z_]+\"" names "${entries}")
    foreach(name IN LISTS names)
        string(REGEX REPLACE "[^a-z_]" "" name "${name}")
        add_executable(fuzz_${name} fuzz/main_libfuzzer.cpp)
        target_compile_definitions(fuzz_${name} PRIVATE VT_FUZZ_TARGET="${name}")
        target_link_libraries(fuzz_${name} PRIVATE fuzz_code)
        target_link_options(fuzz_${name} PRIVATE -fsanitize=fuzzer)
        list(APPEND fuzz_programs fuzz_${name})
    endforeach()
    add_custom_target(fuzz DEPENDS ${fuzz_programs})
    return()
endif()

add_executable(fuzz_replay fuzz/replay_test.cpp)
target_compile_definitions(fuzz_replay PRIVATE VT_FUZZ_FOLDER="${CMAKE_CURRENT_SOURCE_DIR}/fuzz")
target_link_libraries(fuzz_replay PRIVATE fuzz_code googletest project_warnings)
add_test(NAME ${VT_CONFIGURATION}.fuzz_replay COMMAND fuzz_replay --gtest_brief=1)
set_tests_properties(${VT_CONFIGURATION}.fuzz_replay PROPERTIES TIMEOUT 600)
