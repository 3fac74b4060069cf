# What cmake --install puts together: the package, but for its ZIP file (see tools/package/make_package.py).
#
#   bin/                the DLLs and the tools
#   include/            the headers
#   lib/                import libraries for mingw-w64 and for MSVC, pkg-config files, the CMake package
#   docs/, samples/     where they stand in the sources, so that the pages' links hold
#   licenses/           the notices of what the DLLs and tools contain of other projects
#   share/vtfltmgr/     schemas, a format file for a log viewer

include(CMakePackageConfigHelpers)

set(package_folder lib/cmake/VTFltMgr)

install(TARGETS VTFltMgr VTFltSim EXPORT VTFltMgrTargets RUNTIME DESTINATION bin ARCHIVE DESTINATION lib)
install(TARGETS vtfltsim_cli vtbackup vtlog vtfltctl RUNTIME DESTINATION bin)
install(EXPORT VTFltMgrTargets NAMESPACE VTFltMgr:: DESTINATION ${package_folder})
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/VTFltMgrConfig.cmake.in"
    "${CMAKE_CURRENT_BINARY_DIR}/VTFltMgrConfig.cmake" INSTALL_DESTINATION ${package_folder}
    NO_SET_AND_CHECK_MACRO)
# Before 1.0 a new minor version may break what was there.
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/VTFltMgrConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/VTFltMgrConfig.cmake" "${CMAKE_CURRENT_BINARY_DIR}/VTFltMgrConfigVersion.cmake"
    DESTINATION ${package_folder})

# MSVC's linker wants an import library of its own kind; made of the names alone.
find_program(VT_LLVM_DLLTOOL NAMES llvm-dlltool-19 llvm-dlltool)
foreach(library IN ITEMS VTFltMgr VTFltSim)
    set(VT_LIBRARY ${library})
    string(TOLOWER ${library} name)
    configure_file("${CMAKE_CURRENT_LIST_DIR}/pkgconfig.pc.in" "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc" @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${name}.pc" DESTINATION lib/pkgconfig)
endforeach()
if(VT_LLVM_DLLTOOL)
    add_custom_command(OUTPUT "${CMAKE_BINARY_DIR}/VTFltMgr.lib" "${CMAKE_BINARY_DIR}/VTFltSim.lib"
        COMMAND python3 -B "${PROJECT_SOURCE_DIR}/tools/package/msvc_import_library.py" "${CMAKE_OBJDUMP}"
            "${VT_LLVM_DLLTOOL}" "$<TARGET_FILE:VTFltMgr>" "$<TARGET_FILE:VTFltSim>"
        DEPENDS VTFltMgr VTFltSim "${PROJECT_SOURCE_DIR}/tools/package/msvc_import_library.py"
        WORKING_DIRECTORY "${CMAKE_BINARY_DIR}"
        VERBATIM)
    add_custom_target(msvc_import_libraries ALL
        DEPENDS "${CMAKE_BINARY_DIR}/VTFltMgr.lib" "${CMAKE_BINARY_DIR}/VTFltSim.lib")
    install(FILES "${CMAKE_BINARY_DIR}/VTFltMgr.lib" "${CMAKE_BINARY_DIR}/VTFltSim.lib" DESTINATION lib)
endif()

install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/" "${PROJECT_SOURCE_DIR}/sim/include/" DESTINATION include)
install(FILES LICENSE README.md CHANGELOG.md CONTRIBUTING.md SECURITY.md DESTINATION .)
install(DIRECTORY docs DESTINATION .)
# Their CMakeLists.txt builds them with the library.
install(DIRECTORY samples DESTINATION . PATTERN CMakeLists.txt EXCLUDE)
# What is linked in or embedded: a notice each, as the Debian package that it comes from has it. docs/deploying.md says which
# program contains what. The compiler's packages have one documentation folder in common.
foreach(component IN ITEMS
    CLI11=libcli11-dev
    DejaVu=fonts-dejavu-core
    fmt=libfmt-dev
    gcc-libraries=gcc-mingw-w64-base
    mingw-w64=mingw-w64-x86-64-dev
    nlohmann-json=nlohmann-json3-dev
    stb=libstb-dev
    xxHash=libxxhash-dev)
    string(REPLACE "=" ";" component ${component})
    list(GET component 0 notice)
    list(GET component 1 debian_package)
    install(FILES "/usr/share/doc/${debian_package}/copyright" DESTINATION licenses RENAME ${notice}.txt)
endforeach()
install(DIRECTORY tools/vtfltctl/schema DESTINATION share/vtfltmgr)
install(FILES tools/vtlog/lnav/vtfltmgr_log.json DESTINATION share/vtfltmgr/lnav)
