# Installs the shared library, its headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

# Components, one per Debian package (cmake/KQPackage.cmake): runtime (the shared library), dev
# (everything for building against it).
install(TARGETS KQVisitorCore EXPORT KQVisitorCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The static library for hosts that link it in (its dependencies: pkg-config --static).
install(TARGETS KQVisitorCoreStatic ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
# Internal headers live in detail/ folders and stay out of the installed tree; no installed
# header includes them (the installed-package test compiles each installed header alone).
install(DIRECTORY ${PROJECT_SOURCE_DIR}/KQVisitorCore/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KQVisitorCore
  COMPONENT dev
  FILES_MATCHING PATTERN "*.h"
  PATTERN "detail" EXCLUDE)

set(KQ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KQVisitorCore)
install(EXPORT KQVisitorCoreTargets NAMESPACE KQVisitorCore:: DESTINATION ${KQ_CMAKE_DIR}
  COMPONENT dev)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KQVisitorCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KQVisitorCoreConfig.cmake INSTALL_DESTINATION ${KQ_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KQVisitorCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KQVisitorCoreConfig.cmake
  ${PROJECT_BINARY_DIR}/KQVisitorCoreConfigVersion.cmake DESTINATION ${KQ_CMAKE_DIR}
  COMPONENT dev)

file(RELATIVE_PATH KQ_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/KQVisitorCore.pc.in
  ${PROJECT_BINARY_DIR}/KQVisitorCore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KQVisitorCore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
  COMPONENT dev)
