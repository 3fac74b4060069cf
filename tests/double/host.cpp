// Runs a test program on the double:
//
//     double_host [--seed=N] PROGRAM.exe [argument...]
//
// The program stands beside this one as PROGRAM.p0000.exe.
#include "double/control.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

// The modules' operators new and delete are their own (module_memory.cpp), the C++ library's objects are made with its
// own; and copies of a module have the same variables on purpose.
extern "C" const char* __asan_default_options();
extern "C" __attribute__((visibility("default"))) const char* __asan_default_options()
{
    return "alloc_dealloc_mismatch=0:detect_odr_violation=0";
}

int main(int argc, char** argv)
{
    int at = 1;
    unsigned long long seed = 0;
    if (at < argc && std::strncmp(argv[at], "--seed=", 7) == 0)
        seed = std::strtoull(argv[at++] + 7, nullptr, 0);
    if (at == argc) {
        std::fputs("double_host [--seed=N] PROGRAM.exe [argument...]\n", stderr);
        return 2;
    }
    std::string self = argv[0];
    const std::size_t slash = self.rfind('/');
    return DoubleRun(slash == std::string::npos ? "." : self.substr(0, slash).c_str(), argc - at, argv + at, seed);
}
