# The project's warnings, all of them errors. Headers of the system and of other projects are included as
# SYSTEM and stay out of this.
#
# Not in the set: -Wuseless-cast, because DWORD and unsigned long are one type to this compiler and two to
# others; wide format strings, which no option checks.
add_library(project_warnings INTERFACE)
if(NOT CMAKE_CXX_COMPILER_ID STREQUAL GNU)
    return() # another compiler counts coverage; what is wrong is said by this one
endif()
target_compile_options(project_warnings INTERFACE
    -Werror
    -Wall
    -Wextra
    -Wpedantic
    -Wconversion
    -Wsign-conversion
    -Wshadow
    -Wformat=2
    -Wcast-qual
    -Wcast-align
    -Wundef
    -Wnull-dereference
    -Wduplicated-cond
    -Wduplicated-branches
    -Wlogical-op
    -Wimplicit-fallthrough
    -Wvla
    $<$<COMPILE_LANGUAGE:CXX>:-Wold-style-cast>
    $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor>
    $<$<COMPILE_LANGUAGE:CXX>:-Woverloaded-virtual>
    $<$<COMPILE_LANGUAGE:CXX>:-Wextra-semi>
    $<$<COMPILE_LANGUAGE:CXX>:-Wredundant-tags>
    $<$<COMPILE_LANGUAGE:C>:-Wstrict-prototypes>)
