# native_flags: compiling the Windows-free part of the library on Linux.
#
# wchar_t is made 16 bits wide as on Windows, so that the code under test is the same code. The C and C++
# libraries of the system have a 32-bit wchar_t: their wide functions must not be used. Templates are therefore
# instantiated here instead of being taken from the C++ library, and the few wide C functions that they call are
# those of tests/native/wide.c. A test of its own looks that nothing else slipped in.
add_library(native_flags INTERFACE)
target_compile_options(native_flags INTERFACE
    -fshort-wchar
    -fno-builtin
    -fsanitize=address,undefined
    -fno-sanitize-recover=all
    -fno-omit-frame-pointer
    -ffunction-sections)
target_compile_definitions(native_flags INTERFACE _GLIBCXX_EXTERN_TEMPLATE=0 _GLIBCXX_ASSERTIONS)
target_link_options(native_flags INTERFACE -fsanitize=address,undefined -Wl,--gc-sections)
