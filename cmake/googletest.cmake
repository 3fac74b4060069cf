# googletest: GoogleTest and GoogleMock with a main function, from the sources of the system's googletest
# package, compiled with the flags of the tests. A test program with a main function of its own keeps its own.
set(googletest_folder /usr/src/googletest)
if(NOT EXISTS "${googletest_folder}/googlemock/src/gmock-all.cc")
    message(FATAL_ERROR "${googletest_folder} is missing: run ./dev setup")
endif()

add_library(googletest STATIC EXCLUDE_FROM_ALL
    "${googletest_folder}/googletest/src/gtest-all.cc"
    "${googletest_folder}/googlemock/src/gmock-all.cc"
    "${googletest_folder}/googlemock/src/gmock_main.cc")
target_include_directories(googletest
    SYSTEM PUBLIC "${googletest_folder}/googletest/include" "${googletest_folder}/googlemock/include"
    PRIVATE "${googletest_folder}/googletest" "${googletest_folder}/googlemock")
if(WIN32)
    target_compile_options(googletest PRIVATE -O0 -g0)
    # GoogleTest has its own threads for Windows; the compiler's POSIX ones would be mixed in.
    target_compile_definitions(googletest PUBLIC GTEST_HAS_PTHREAD=0)
else()
    target_link_libraries(googletest PUBLIC native_flags)
endif()
