# header_libraries: the header-only libraries of the tools (CLI11, fmt, nlohmann json, stb, xxhash).
#
# They come with the system, in /usr/include, which also holds the headers of the Linux C library. Those must
# not reach the cross compiler, so the wanted folders, and only those, are linked into the build folder.
set(header_folder "${CMAKE_BINARY_DIR}/header_libraries")
file(MAKE_DIRECTORY "${header_folder}")
foreach(entry IN ITEMS CLI fmt nlohmann stb xxhash.h)
    if(NOT EXISTS "/usr/include/${entry}")
        message(FATAL_ERROR "/usr/include/${entry} is missing: run ./dev setup")
    endif()
    file(CREATE_LINK "/usr/include/${entry}" "${header_folder}/${entry}" SYMBOLIC)
endforeach()

add_library(header_libraries INTERFACE)
target_include_directories(header_libraries SYSTEM INTERFACE "${header_folder}")
target_compile_definitions(header_libraries INTERFACE XXH_INLINE_ALL)
if(WIN32)
    add_library(fmt_library STATIC "${CMAKE_CURRENT_LIST_DIR}/../tools/fmt/format.cpp")
    target_include_directories(fmt_library SYSTEM PRIVATE "${header_folder}")
    target_link_libraries(header_libraries INTERFACE fmt_library)
else()
    # Natively a few sources format, each under flags of its own.
    target_compile_definitions(header_libraries INTERFACE FMT_HEADER_ONLY)
endif()
