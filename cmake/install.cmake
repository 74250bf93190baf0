# Package files so that consumers can use either
#   find_package(sf CONFIG) + target_link_libraries(app sf::sf)
# or
#   pkg-config --cflags --libs sf
include(CMakePackageConfigHelpers)

install(EXPORT sfTargets NAMESPACE sf:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sf)
configure_package_config_file(${PROJECT_SOURCE_DIR}/cmake/sfConfig.cmake.in
  ${PROJECT_BINARY_DIR}/sfConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sf)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/sfConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/sfConfig.cmake ${PROJECT_BINARY_DIR}/sfConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/sf)

configure_file(${PROJECT_SOURCE_DIR}/cmake/sf.pc.in ${PROJECT_BINARY_DIR}/sf.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/sf/examples)
