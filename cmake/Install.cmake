# What an installed tree holds: headers, library, CMake package, pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS kel EXPORT kelTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY include/kel DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(KEL_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/kel)
install(EXPORT kelTargets NAMESPACE kel:: DESTINATION ${KEL_PACKAGE_DIR})
configure_package_config_file(cmake/kelConfig.cmake.in kelConfig.cmake
  INSTALL_DESTINATION ${KEL_PACKAGE_DIR})
write_basic_package_version_file(kelConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kelConfig.cmake ${PROJECT_BINARY_DIR}/kelConfigVersion.cmake
  DESTINATION ${KEL_PACKAGE_DIR})

# Relative to the file itself, so that an installed tree can be moved.
file(RELATIVE_PATH KEL_PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(cmake/kel.pc.in kel.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kel.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
