# `cmake --install` gives a relocatable tree that find_package(VantorqFoundation) and
# `pkg-config VantorqFoundation` both find.
include(CMakePackageConfigHelpers)

set(package_folder ${CMAKE_INSTALL_LIBDIR}/cmake/VantorqFoundation)

install(TARGETS VantorqFoundation EXPORT VantorqFoundationTargets)
install(DIRECTORY include/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT VantorqFoundationTargets
    NAMESPACE VantorqFoundation::
    DESTINATION ${package_folder})

configure_package_config_file(
    cmake/VantorqFoundationConfig.cmake.in
    ${PROJECT_BINARY_DIR}/VantorqFoundationConfig.cmake
    INSTALL_DESTINATION ${package_folder})
# Before 1.0 a minor release may break callers.
write_basic_package_version_file(
    ${PROJECT_BINARY_DIR}/VantorqFoundationConfigVersion.cmake
    COMPATIBILITY SameMinorVersion)
install(
    FILES
        ${PROJECT_BINARY_DIR}/VantorqFoundationConfig.cmake
        ${PROJECT_BINARY_DIR}/VantorqFoundationConfigVersion.cmake
    DESTINATION ${package_folder})

# The prefix is found from the file's own place, so that the tree may be moved.
file(RELATIVE_PATH VNTQ_PREFIX_FROM_PKGCONFIG
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
configure_file(cmake/VantorqFoundation.pc.in ${PROJECT_BINARY_DIR}/VantorqFoundation.pc @ONLY)
install(
    FILES ${PROJECT_BINARY_DIR}/VantorqFoundation.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
