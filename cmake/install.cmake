# Installation: the public headers, the versioned shared library, a CMake
# package (find_package(ztsdlib) gives ztsdlib::ztsdlib) and a pkg-config file.
# The library's own dependencies stay private: consumers link only ztsdlib.
include(CMakePackageConfigHelpers)

install(TARGETS ztsdlib EXPORT ztsdlibTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/ztsdlib DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)

install(EXPORT ztsdlibTargets
  NAMESPACE ztsdlib::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib COMPONENT dev)
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/ztsdlibConfig.cmake.in
  ${CMAKE_BINARY_DIR}/ztsdlibConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib)
write_basic_package_version_file(${CMAKE_BINARY_DIR}/ztsdlibConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/ztsdlibConfig.cmake ${CMAKE_BINARY_DIR}/ztsdlibConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/ztsdlib COMPONENT dev)

# The pkg-config file finds its prefix relative to itself, so the installed
# tree can be moved (or installed with --prefix) and still be found.
file(RELATIVE_PATH ZTSD_PC_RELATIVE_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" ZTSD_PC_RELATIVE_PREFIX "${ZTSD_PC_RELATIVE_PREFIX}")
if(NOT WIN32)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/ztsdlib.pc.in ${CMAKE_BINARY_DIR}/ztsdlib.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/ztsdlib.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)
else()
  # Windows: the module definition file beside the import library (other
  # toolchains make their own import library from it), and the libcurl DLL
  # the library was built for beside the library, where it looks first.
  install(FILES ${ZTSD_DEF_FILE} DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)
  find_file(ZTSD_CURL_DLL NAMES libcurl.dll libcurl-x64.dll libcurl-4.dll PATH_SUFFIXES bin
            DOC "The libcurl DLL shipped beside ztsdlib's DLL")
  if(NOT ZTSD_CURL_DLL)
    message(FATAL_ERROR "No libcurl DLL found in the Windows prefixes (scripts/windowsDeps builds one)")
  endif()
  install(FILES ${ZTSD_CURL_DLL} DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
endif()

# The tools find the library beside them, in the prefix they were installed
# into (a run path relative to the binary), wherever that prefix is.
file(RELATIVE_PATH ZTSD_BIN_TO_LIB "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
foreach(tool ztsd-sim ztsdctl)
  if(TARGET ${tool})
    set_target_properties(${tool} PROPERTIES INSTALL_RPATH "$ORIGIN/${ZTSD_BIN_TO_LIB}")
    install(TARGETS ${tool} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  endif()
endforeach()
if(NOT WIN32)
  install(FILES ${CMAKE_SOURCE_DIR}/docs/ztsdctl.1 ${CMAKE_SOURCE_DIR}/docs/ztsd-sim.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
endif()

# Debian packages (cpack -G DEB in the build tree): libztsdlib1 (the shared
# library), libztsdlib-dev (headers, CMake package, pkg-config file) and
# ztsdlib-tools (ztsdctl, ztsd-sim, their man pages). Dependencies on other
# packages come from dpkg-shlibdeps; the dev and tools packages depend on
# the library package of the same version.
# Windows (cpack -G ZIP): one ZIP with bin/ (the DLLs and the tools),
# include/ and lib/ (import library, .def, CMake package).
if(WIN32)
  set(CPACK_GENERATOR ZIP)
else()
  set(CPACK_GENERATOR DEB)
endif()
set(CPACK_PACKAGE_NAME ztsdlib)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ztsdlib maintainers <ztsdlib@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Time sync of networked measurement chassis")
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools' dependency on libztsdlib1 is stated below; dpkg-shlibdeps
# finds the library it links in the build tree.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_BINARY_DIR})
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libztsdlib1)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libztsdlib-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS "libztsdlib1 (= ${PROJECT_VERSION})")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ztsdlib-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libztsdlib1 (= ${PROJECT_VERSION})")
# The library loads libcurl at run time, so no link-time dependency names it.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS "libcurl4")
include(CPack)
