# Installs the shared library, its headers, a CMake package and a pkg-config file.
include(CMakePackageConfigHelpers)

install(TARGETS KQVisitorCore EXPORT KQVisitorCoreTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# Internal headers (the library's own threads, queues, delegate lists and stream parser) stay out
# of the installed tree; no installed header includes them.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/KQVisitorCore/
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/KQVisitorCore
  FILES_MATCHING PATTERN "*.h"
  PATTERN "detail" EXCLUDE
  PATTERN "Guarded.h" EXCLUDE
  PATTERN "OwnedThread.h" EXCLUDE
  PATTERN "TimedTasks.h" EXCLUDE
  PATTERN "XMPPDelegateList.h" EXCLUDE
  PATTERN "XMPPParser.h" EXCLUDE
  PATTERN "XMPPQueue.h" EXCLUDE)

set(KQ_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/KQVisitorCore)
install(EXPORT KQVisitorCoreTargets NAMESPACE KQVisitorCore:: DESTINATION ${KQ_CMAKE_DIR})
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/KQVisitorCoreConfig.cmake.in
  ${PROJECT_BINARY_DIR}/KQVisitorCoreConfig.cmake INSTALL_DESTINATION ${KQ_CMAKE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/KQVisitorCoreConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/KQVisitorCoreConfig.cmake
  ${PROJECT_BINARY_DIR}/KQVisitorCoreConfigVersion.cmake DESTINATION ${KQ_CMAKE_DIR})

file(RELATIVE_PATH KQ_PC_TO_PREFIX /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
configure_file(${PROJECT_SOURCE_DIR}/cmake/KQVisitorCore.pc.in
  ${PROJECT_BINARY_DIR}/KQVisitorCore.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/KQVisitorCore.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
