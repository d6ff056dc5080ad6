# The package that other projects find: find_package(orva CONFIG) and pkg-config orva.
include(CMakePackageConfigHelpers)

set(orva_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/orva)
install(TARGETS orva orva_host EXPORT orvaTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(EXPORT orvaTargets NAMESPACE orva:: DESTINATION ${orva_package_dir} COMPONENT development)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/orvaConfigVersion.cmake COMPATIBILITY SameMinorVersion)
configure_file(cmake/orvaConfig.cmake.in ${PROJECT_BINARY_DIR}/orvaConfig.cmake @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orvaConfig.cmake ${PROJECT_BINARY_DIR}/orvaConfigVersion.cmake
    DESTINATION ${orva_package_dir} COMPONENT development)
file(RELATIVE_PATH orva_pc_prefix /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)  # relative, so that the package can be moved
set(orva_pc_stays)
set(orva_pc_requires)  # shared libraries keep theirs to themselves, and their users need no headers of those
if(NOT BUILD_SHARED_LIBS)
    set(orva_pc_requires "zlib liblz4")
    if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
        set(orva_pc_stays " -Wl,-z,nodelete")
    endif()
    if(ORVA_FAST_CODEC)
        string(APPEND orva_pc_requires " libisal libdeflate")
    endif()
endif()
configure_file(cmake/orva.pc.in ${PROJECT_BINARY_DIR}/orva.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/orva.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

# The documents that the headers refer to, laid out as in the source tree, so that links among them hold.
install(FILES README.md CHANGELOG.md SECURITY.md CONTRIBUTING.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN _static EXCLUDE PATTERN _made EXCLUDE PATTERN security.md EXCLUDE
    PATTERN contributing.md EXCLUDE)
install(FILES examples/rows.cpp DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)
install(DIRECTORY examples/consumer DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples COMPONENT development)
