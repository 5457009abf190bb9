# What an installed copy holds: the library, its header, a CMake package and a pkg-config file. Both of the latter find the
# library from where they lie themselves, so that an installed tree can be moved.

include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/recvault")
set(pkgconfig_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(TARGETS recvault EXPORT recvaultTargets FILE_SET HEADERS)
install(EXPORT recvaultTargets NAMESPACE recvault:: DESTINATION "${package_dir}")

configure_package_config_file(
    "${CMAKE_CURRENT_LIST_DIR}/recvaultConfig.cmake.in" "${PROJECT_BINARY_DIR}/recvaultConfig.cmake"
    INSTALL_DESTINATION "${package_dir}")
write_basic_package_version_file("${PROJECT_BINARY_DIR}/recvaultConfigVersion.cmake" COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/recvaultConfig.cmake" "${PROJECT_BINARY_DIR}/recvaultConfigVersion.cmake"
    DESTINATION "${package_dir}")

cmake_path(RELATIVE_PATH CMAKE_INSTALL_PREFIX BASE_DIRECTORY "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig"
    OUTPUT_VARIABLE prefix_from_pkgconfig)
cmake_path(APPEND pc_libdir "\${prefix}" "${CMAKE_INSTALL_LIBDIR}")
cmake_path(APPEND pc_includedir "\${prefix}" "${CMAKE_INSTALL_INCLUDEDIR}")
configure_file("${CMAKE_CURRENT_LIST_DIR}/recvault.pc.in" "${PROJECT_BINARY_DIR}/recvault.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/recvault.pc" DESTINATION "${pkgconfig_dir}")

if(TARGET recvault_tool)
    cmake_path(RELATIVE_PATH CMAKE_INSTALL_FULL_LIBDIR BASE_DIRECTORY "${CMAKE_INSTALL_FULL_BINDIR}" OUTPUT_VARIABLE lib_from_bin)
    set_target_properties(recvault_tool PROPERTIES INSTALL_RPATH "$ORIGIN/${lib_from_bin}")
    install(TARGETS recvault_tool RUNTIME)
    install(FILES "${PROJECT_SOURCE_DIR}/tools/recvault.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
    install(FILES "${PROJECT_SOURCE_DIR}/tools/recvault.bash" RENAME recvault
        DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
endif()
