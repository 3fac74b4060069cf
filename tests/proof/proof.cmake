# The proof that no change is lost: proof_tests is what fits into the tests, vtfltproof the long runs.
vt_glob(proof_sources proof/*.cpp)
vt_glob(proof_test_sources proof/tests/*.cpp)
vt_glob(proof_program_sources proof/program/*.cpp)

vt_add_module(vtfltproof.p0000 exe ${proof_sources} ${proof_program_sources})
target_include_directories(vtfltproof.p0000 PRIVATE "${CMAKE_CURRENT_SOURCE_DIR}" "${PROJECT_SOURCE_DIR}/src"
    "${PROJECT_SOURCE_DIR}/include")
target_link_libraries(vtfltproof.p0000 PRIVATE VTFltSim.p0000 double_library)
target_link_options(vtfltproof.p0000 PRIVATE -Wl,-u,main)
add_dependencies(vtfltproof.p0000 double_host)
# ./dev sim names it.
set_target_properties(vtfltproof.p0000 PROPERTIES EXCLUDE_FROM_ALL ON)

vt_add_double_program(proof_tests LINKED ${proof_sources} ${proof_test_sources} ${support_sources})
vt_in_batches(proof_tests.p0000)
vt_add_double_test(double.proof_tests proof_tests)
# A process that is killed leaves on the stack what the double and the simulator had there; of the library's own heap each
# process's account is looked at when it ends.
set_tests_properties(${VT_CONFIGURATION}.double.proof_tests PROPERTIES ENVIRONMENT "ASAN_OPTIONS=detect_leaks=0"
    TIMEOUT 1500) # where coverage is counted it takes several times as long
