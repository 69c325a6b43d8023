# Installation: the library, its headers under include/qor/, a CMake package
# (find_package(qor) gives qor::qor) and qor.pc for pkg-config.
include(CMakePackageConfigHelpers)

get_property(qor_headers GLOBAL PROPERTY QOR_PUBLIC_HEADERS)
install(FILES ${qor_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/qor)

install(TARGETS qor EXPORT qorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

set(qor_cmake_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qor)
install(EXPORT qorTargets NAMESPACE qor:: DESTINATION ${qor_cmake_dir})
configure_package_config_file(cmake/qorConfig.cmake.in
  "${CMAKE_CURRENT_BINARY_DIR}/qorConfig.cmake"
  INSTALL_DESTINATION ${qor_cmake_dir})
write_basic_package_version_file("${CMAKE_CURRENT_BINARY_DIR}/qorConfigVersion.cmake"
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qorConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/qorConfigVersion.cmake"
        DESTINATION ${qor_cmake_dir})

# The .pc file finds its prefix from its own place, so an installed tree can be
# moved (the consumer test installs into a temporary prefix).
string(REGEX MATCHALL "[^/]+" qor_pc_depth "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
set(QOR_PC_PREFIX "\${pcfiledir}")
foreach(level IN LISTS qor_pc_depth)
  string(APPEND QOR_PC_PREFIX "/..")
endforeach()
configure_file(cmake/qor.pc.in "${CMAKE_CURRENT_BINARY_DIR}/qor.pc" @ONLY)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/qor.pc" DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
