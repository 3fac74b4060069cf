# native_flags: compiling the Windows-free part of the library on Linux.
#
# wchar_t is made 16 bits wide as on Windows, so that the code under test is the same code. The C and C++
# libraries of the system have a 32-bit wchar_t: their wide functions must not be used. Templates are therefore
# instantiated here instead of being taken from the C++ library, and the few wide C functions that they call are
# those of tests/native/wide.c. A test of its own looks that nothing else slipped in.
#
# VT_SANITIZERS: address,undefined; or thread; or nothing. VT_COVERAGE (clang): what the tests reach of src/ is counted.
set(VT_SANITIZERS "address,undefined" CACHE STRING "Sanitizers of the native build")
option(VT_COVERAGE "Count lines, branches and conditions of src/" OFF)

add_library(native_flags INTERFACE)
target_compile_options(native_flags INTERFACE
    -fshort-wchar
    -fno-builtin)
if(VT_SANITIZERS)
    target_compile_options(native_flags INTERFACE -fsanitize=${VT_SANITIZERS} -fno-sanitize-recover=all)
    target_link_options(native_flags INTERFACE -fsanitize=${VT_SANITIZERS})
    # The thread sanitizer does not understand fences; only the simulator has some, for other processes.
    target_compile_options(native_flags INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-tsan>)
endif()
target_compile_options(native_flags INTERFACE
    -fno-omit-frame-pointer
    -ffunction-sections)
target_compile_definitions(native_flags INTERFACE _GLIBCXX_EXTERN_TEMPLATE=0 _GLIBCXX_ASSERTIONS)
target_link_options(native_flags INTERFACE -Wl,--gc-sections)

# For the library's own objects, and whoever links them.
add_library(native_coverage INTERFACE)
if(VT_COVERAGE)
    target_compile_options(native_coverage INTERFACE -fprofile-instr-generate -fcoverage-mapping -fcoverage-mcdc)
    target_link_options(native_coverage INTERFACE -fprofile-instr-generate)
endif()
