# What an installed tree has beside its programs, libraries and headers: the packages of pkg-config and
# CMake, manual pages, documents, schemas, examples. All of it finds the rest from where it is itself, so
# that a tree can be moved.
include(CMakePackageConfigHelpers)

set(pc_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(config_dir ${CMAKE_INSTALL_LIBDIR}/cmake/keyview)
set(doc_dir ${CMAKE_INSTALL_DOCDIR})

file(RELATIVE_PATH PC_TO_PREFIX /prefix/${pc_dir} /prefix)
string(REGEX REPLACE "/$" "" PC_TO_PREFIX ${PC_TO_PREFIX})
foreach(module keyview12 keyview-host)
    configure_file(cmake/${module}.pc.in ${CMAKE_BINARY_DIR}/${module}.pc @ONLY)
    install(FILES ${CMAKE_BINARY_DIR}/${module}.pc DESTINATION ${pc_dir})
endforeach()

install(EXPORT keyview NAMESPACE keyview:: FILE keyview-targets.cmake DESTINATION ${config_dir})
configure_package_config_file(cmake/keyview-config.cmake.in ${CMAKE_BINARY_DIR}/keyview-config.cmake
    INSTALL_DESTINATION ${config_dir} NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/keyview-config-version.cmake
    COMPATIBILITY SameMinorVersion)
install(
    FILES ${CMAKE_BINARY_DIR}/keyview-config.cmake ${CMAKE_BINARY_DIR}/keyview-config-version.cmake
    DESTINATION ${config_dir})

# Manual pages: those that the build wrote, and those that are written by hand.
install(DIRECTORY ${CMAKE_BINARY_DIR}/man/ docs/man/ DESTINATION ${CMAKE_INSTALL_MANDIR} OPTIONAL
    FILES_MATCHING PATTERN "man[1-9]/*.[1-9]")
install(FILES README.md CHANGELOG.md SECURITY.md DESTINATION ${doc_dir})
install(DIRECTORY docs/ DESTINATION ${doc_dir}/docs
    FILES_MATCHING PATTERN "*.md" PATTERN "*.svg" PATTERN "*.png" PATTERN "*.json" PATTERN "man" EXCLUDE)
install(DIRECTORY examples/ DESTINATION ${doc_dir}/examples
    FILES_MATCHING PATTERN "*.c" PATTERN "*.cpp" PATTERN "*.py" PATTERN "*.json" PATTERN "*.yaml"
    PATTERN "*.service" PATTERN "*.socket")
install(DIRECTORY docs/schemas/ DESTINATION ${CMAKE_INSTALL_DATADIR}/keyview/schemas)
