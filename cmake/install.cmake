# Installation: the public headers, the versioned shared library, a CMake
# package (find_package(ztsdlib) gives ztsdlib::ztsdlib) and a pkg-config file.
# The library's own dependencies stay private: consumers link only ztsdlib.
include(CMakePackageConfigHelpers)

install(TARGETS ztsdlib EXPORT ztsdlibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ztsdlib DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT ztsdlibTargets
  NAMESPACE ztsdlib::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ztsdlibConfig.cmake.in
  ${CMAKE_BINARY_DIR}/ztsdlibConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ztsdlibConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ztsdlibConfig.cmake ${CMAKE_BINARY_DIR}/ztsdlibConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib)

# The pkg-config file finds its prefix relative to itself, so the installed
# tree can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH ZTSD_PC_RELATIVE_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" ZTSD_PC_RELATIVE_PREFIX "${ZTSD_PC_RELATIVE_PREFIX}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/ztsdlib.pc.in ${CMAKE_BINARY_DIR}/ztsdlib.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/ztsdlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

foreach(tool ztsd-sim ztsdctl)
  if(TARGET ${tool})
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()
