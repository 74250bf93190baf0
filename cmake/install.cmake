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

# sf.pc finds its prefix from its own place (pkg-config's ${pcfiledir}), so
# it stays right for `cmake --install --prefix <dir>` and for a moved tree.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(SF_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH SF_PC_UP "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
  string(REGEX REPLACE "/$" "" SF_PC_UP "${SF_PC_UP}")
  set(SF_PC_PREFIX "\${pcfiledir}/${SF_PC_UP}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/sf.pc.in ${PROJECT_BINARY_DIR}/sf.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/sf.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

if(EXISTS ${PROJECT_SOURCE_DIR}/examples)
  install(DIRECTORY ${PROJECT_SOURCE_DIR}/examples/ DESTINATION ${CMAKE_INSTALL_DATADIR}/sf/examples)
endif()
