# The double: an in-memory Windows, on which the library, the simulator and the tests run natively.
#
#   libdouble.so              the double; a module that calls a function it lacks does not link
#   double_host               runs a program on it
#   NAME.p0000.dll, .exe      the modules: what Windows has as NAME.dll and NAME.exe (see modules.cpp for the number)

set(double_folder "${CMAKE_CURRENT_SOURCE_DIR}/double")
if(NOT EXISTS /usr/include/wine/wine/windows/windows.h OR NOT EXISTS /usr/share/mingw-w64/include/winioctl.h)
    message(STATUS "tests: no Windows headers (libwine-dev, mingw-w64-common), nothing for the double")
    return()
endif()

# Compiling for the double: Windows' headers, 16-bit wide characters, position-independent code.
add_library(double_flags INTERFACE)
target_compile_options(double_flags INTERFACE
    -fPIC
    $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>
    "SHELL:-include ${double_folder}/shim/run_time.h")
target_compile_definitions(double_flags INTERFACE
    WINE_UNICODE_NATIVE UNICODE _UNICODE NOMINMAX WIN32_LEAN_AND_MEAN DECLSPEC_HIDDEN= ms_abi=sysv_abi)
target_include_directories(double_flags SYSTEM INTERFACE "${double_folder}/shim" /usr/include/wine/wine/windows)
target_link_libraries(double_flags INTERFACE native_flags)

vt_glob(double_sources double/*.cpp)
list(FILTER double_sources EXCLUDE REGEX "/(host|module_memory|module_threads|imports|leak_listener)\\.cpp$")
add_library(double SHARED ${double_sources} native/wide.c)
target_include_directories(double PUBLIC "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(double PUBLIC double_flags PRIVATE project_warnings)
target_link_options(double PRIVATE "-Wl,--version-script=${double_folder}/exports.map" -Wl,-Bsymbolic -Wl,-z,defs)

# The thread sanitizer does not look into the double: there the baton orders everything, and it is not to take that for
# the program's own order (see api.h).
if(VT_SANITIZERS STREQUAL thread)
    set_source_files_properties(${double_sources} PROPERTIES COMPILE_OPTIONS -fno-sanitize=thread)
endif()

add_executable(double_host double/host.cpp)
target_link_libraries(double_host PRIVATE double project_warnings)

# What every module has in it.
add_library(double_module OBJECT double/module_memory.cpp double/module_threads.cpp native/wide.c)
target_include_directories(double_module PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}")
target_link_libraries(double_module PUBLIC double_flags)

# vt_add_module(<name> <kind> <source>...): a DLL or program (dll, exe) for the double.
function(vt_add_module name kind)
    add_library(${name} SHARED ${ARGN})
    set_target_properties(${name} PROPERTIES PREFIX "" SUFFIX ".${kind}" LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/double"
        BUILD_RPATH "$ORIGIN") # a copy's modules stand beside it
    target_link_libraries(${name} PRIVATE double_module double)
    set_target_properties(${name} PROPERTIES LINK_DEPENDS "${double_folder}/module.map")
    target_link_options(${name} PRIVATE
        "-Wl,--version-script=${double_folder}/module.map" -Wl,-Bsymbolic -Wl,-z,defs -Wl,-z,now -Wl,-z,norelro
        -Wl,--wrap=malloc,--wrap=calloc,--wrap=realloc,--wrap=free) # see memory.cpp
endfunction()

set_target_properties(double_host PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/double")

# The library, as objects and as a DLL.
file(GLOB_RECURSE library_sources CONFIGURE_DEPENDS "${PROJECT_SOURCE_DIR}/src/*.cpp")
set(entry_point "${PROJECT_SOURCE_DIR}/src/api/dllmain.cpp")
list(REMOVE_ITEM library_sources "${entry_point}")
add_library(double_library OBJECT ${library_sources})
target_include_directories(double_library PUBLIC "${PROJECT_SOURCE_DIR}/src" "${PROJECT_SOURCE_DIR}/include")
target_compile_definitions(double_library PUBLIC VTFLTMGR_BUILD)
target_link_libraries(double_library PUBLIC double_flags native_coverage)
# For programs that put something of their own in the place of a part.
add_library(double_archive STATIC EXCLUDE_FROM_ALL)
target_link_libraries(double_archive PUBLIC double_library)

vt_add_module(VTFltMgr.p0000 dll "${entry_point}")
target_include_directories(VTFltMgr.p0000 INTERFACE "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(VTFltMgr.p0000 PRIVATE double_library)

# The simulator. Its imports are found in the host's format.
vt_glob(double_sim_sources ../sim/model/*.cpp ../sim/interpose/*.cpp)
list(FILTER double_sim_sources EXCLUDE REGEX "/interpose/imports\\.cpp$")
vt_add_module(VTFltSim.p0000 dll ${double_sim_sources} double/imports.cpp)
target_compile_definitions(VTFltSim.p0000 PRIVATE VTFLTSIM_BUILD)
target_include_directories(VTFltSim.p0000 PUBLIC "${PROJECT_SOURCE_DIR}/sim/include" PRIVATE "${PROJECT_SOURCE_DIR}/sim")

# vt_add_double_program(<name> LINKED|ARCHIVE|ALONE <source>...): a program of tests, with the library in it, with
# what it uses of it, or without it.
function(vt_add_double_program name way)
    vt_add_module(${name}.p0000 exe ${ARGN} double/leak_listener.cpp)
    target_include_directories(${name}.p0000 PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/src"
        "${PROJECT_SOURCE_DIR}/include")
    target_link_libraries(${name}.p0000 PRIVATE double_googletest VTFltSim.p0000)
    target_compile_options(${name}.p0000 PRIVATE -O0 -g1)
    target_precompile_headers(${name}.p0000 PRIVATE support/machine_test.h)
    if(way STREQUAL LINKED)
        target_link_libraries(${name}.p0000 PRIVATE double_library)
        target_compile_definitions(${name}.p0000 PRIVATE VT_TEST_LINKED)
    elseif(way STREQUAL ARCHIVE)
        target_link_libraries(${name}.p0000 PRIVATE double_archive)
        target_compile_definitions(${name}.p0000 PRIVATE VT_TEST_LINKED)
    endif()
    # Nothing of a shared object calls main; without this the linker leaves GoogleTest's out.
    target_link_options(${name}.p0000 PRIVATE -Wl,-u,main)
    add_dependencies(${name}.p0000 double_host cmd.p0000 holder.p0000)
endfunction()

# vt_add_double_test(<name> <program> [<GoogleTest filter>])
function(vt_add_double_test name program)
    set(arguments --gtest_brief=1)
    if(ARGC GREATER 2)
        list(APPEND arguments "--gtest_filter=${ARGV2}")
    endif()
    add_test(NAME ${VT_CONFIGURATION}.${name} COMMAND double_host ${program}.exe ${arguments})
    set_tests_properties(${VT_CONFIGURATION}.${name} PROPERTIES
        TIMEOUT 600
        FAIL_REGULAR_EXPRESSION "0 tests from 0 test suites ran")
endfunction()

add_library(double_googletest STATIC EXCLUDE_FROM_ALL
    "${googletest_folder}/googletest/src/gtest-all.cc"
    "${googletest_folder}/googlemock/src/gmock-all.cc"
    "${googletest_folder}/googlemock/src/gmock_main.cc")
target_include_directories(double_googletest
    SYSTEM PUBLIC "${googletest_folder}/googletest/include" "${googletest_folder}/googlemock/include"
    PRIVATE "${googletest_folder}/googletest" "${googletest_folder}/googlemock")
# GoogleTest is a program of the host here; its own threads are none of the double's.
target_compile_definitions(double_googletest PUBLIC GTEST_HAS_PTHREAD=0)
target_link_libraries(double_googletest PUBLIC native_flags)
target_compile_options(double_googletest PRIVATE -fPIC $<$<CXX_COMPILER_ID:GNU>:-fno-gnu-unique>)

# Programs that tests start; holder has no need of the library.
vt_add_module(cmd.p0000 exe double/programs/cmd.cpp)
vt_add_module(holder.p0000 exe double/programs/holder.cpp)

vt_glob(support_sources support/*.cpp)
vt_glob(internal_sources internal/*.cpp)
vt_glob(system_sources system/*.cpp)
vt_glob(log_sources log/*.cpp)
vt_glob(fault_sources fault/*.cpp)
vt_glob(conformance_sources conformance/*.cpp double/own/*.cpp)
vt_glob(child_sources children/*.cpp)

if(VT_SANITIZERS STREQUAL thread)
    # Of the cases those that start threads; the others would take two minutes to compile and have nothing to show.
    foreach(sources IN ITEMS system_sources log_sources)
        foreach(source IN LISTS ${sources})
            file(STRINGS "${source}" cases REGEX "^TEST" LIMIT_COUNT 1)
            file(STRINGS "${source}" threads REGEX "std::thread|CreateThread|live_output_test" LIMIT_COUNT 1)
            if(cases AND NOT threads)
                list(REMOVE_ITEM ${sources} "${source}")
            endif()
        endforeach()
        list(LENGTH ${sources} count)
        if(count EQUAL 0)
            message(FATAL_ERROR "no source of ${sources} starts a thread")
        endif()
    endforeach()
endif()

vt_add_double_program(system_tests_linked LINKED ${system_sources} ${support_sources})
vt_in_batches(system_tests_linked.p0000)
vt_add_double_test(double.system_tests_linked system_tests_linked)
vt_add_double_program(log_tests ARCHIVE ${log_sources} ${support_sources})
vt_in_batches(log_tests.p0000)
vt_add_double_test(double.log_tests log_tests)
vt_add_double_program(conformance_tests ALONE ${conformance_sources})
vt_add_double_test(double.conformance_tests conformance_tests)
set(users_of_children system_tests_linked log_tests)
if(NOT VT_SANITIZERS STREQUAL thread) # these have nothing that runs at the same time within one process
    vt_add_double_program(internal_tests LINKED ${internal_sources} ${support_sources})
    vt_in_batches(internal_tests.p0000)
    vt_add_double_test(double.internal_tests internal_tests)
    vt_add_double_program(fault_tests LINKED ${fault_sources} ${support_sources})
    vt_add_double_test(double.fault_tests fault_tests)
    list(APPEND users_of_children internal_tests fault_tests)
    include(proof/proof.cmake)
endif()

foreach(source IN LISTS child_sources)
    cmake_path(GET source STEM child)
    vt_add_module(${child}.p0000 exe ${source})
    target_include_directories(${child}.p0000 PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/src")
    target_link_libraries(${child}.p0000 PRIVATE VTFltMgr.p0000 VTFltSim.p0000)
    foreach(program IN LISTS users_of_children)
        add_dependencies(${program}.p0000 ${child}.p0000)
    endforeach()
endforeach()
