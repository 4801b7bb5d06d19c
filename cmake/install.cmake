# SPDX-License-Identifier: MIT
include(CMakePackageConfigHelpers)

install(TARGETS carddev_static carddev_shared EXPORT carddevTargets
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
set_target_properties(carddev_shared PROPERTIES EXPORT_NAME carddev)
install(FILES include/carddev.h include/carddev.hpp include/carddev_state.h
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/carddev)
install(EXPORT carddevTargets NAMESPACE carddev:: DESTINATION ${package_dir})
configure_package_config_file(cmake/carddevConfig.cmake.in carddevConfig.cmake
    INSTALL_DESTINATION ${package_dir})
write_basic_package_version_file(carddevConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES
    ${CMAKE_CURRENT_BINARY_DIR}/carddevConfig.cmake
    ${CMAKE_CURRENT_BINARY_DIR}/carddevConfigVersion.cmake
    DESTINATION ${package_dir})

# Found from the file's own place, so that the installed tree can be moved.
file(RELATIVE_PATH pc_includedir
    ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_FULL_INCLUDEDIR})
configure_file(cmake/carddev.pc.in carddev.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/carddev.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

add_subdirectory(man)
