# The library's installation, component QorVarlok: the public header,
# libQorVarlok.so and the CMake package that gives QorVarlok::QorVarlok.
# Internal headers and the subsystems' objects stay in the build tree. The
# stand-ins for the vendors' closed libraries that the .so needs at run time
# go beside it, and the .so finds them there through $ORIGIN.
include(CMakePackageConfigHelpers)

set(QORVARLOK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QorVarlok)

# The header-only part of the interface travels with the library.
set_target_properties(qv_api PROPERTIES EXPORT_NAME PublicHeader)
install(TARGETS QorVarlok qv_api EXPORT QorVarlokTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT QorVarlok
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
set_target_properties(QorVarlok PROPERTIES INSTALL_RPATH "$ORIGIN")
foreach(vendor RtosLib64 ZelTagAccess)
  if(TARGET ${vendor})
    set_target_properties(${vendor} PROPERTIES INSTALL_RPATH "$ORIGIN")
    install(TARGETS ${vendor} LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT QorVarlok)
  endif()
endforeach()
file(GLOB _public_headers ${CMAKE_SOURCE_DIR}/QorVarlok/include/QorVarlok/*.h)
install(FILES ${_public_headers} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/QorVarlok COMPONENT QorVarlok)

install(EXPORT QorVarlokTargets NAMESPACE QorVarlok:: DESTINATION ${QORVARLOK_CMAKE_DIR} COMPONENT QorVarlok)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/QorVarlokConfig.cmake.in
  ${CMAKE_BINARY_DIR}/QorVarlokConfig.cmake
  INSTALL_DESTINATION ${QORVARLOK_CMAKE_DIR})
# 0.x: a new minor version may change the interface.
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QorVarlokConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QorVarlokConfig.cmake ${CMAKE_BINARY_DIR}/QorVarlokConfigVersion.cmake
  DESTINATION ${QORVARLOK_CMAKE_DIR} COMPONENT QorVarlok)
