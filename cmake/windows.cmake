# The Windows DLL's exports: a module definition file made from the public
# header (every ZTSDLIB_API function, the four deletes among them), linked
# into the DLL so that nothing else is exported, and installed with the
# import library for users of other toolchains (`lib /def:ztsdlib.def` makes
# an MSVC import library). The DLL is libztsdlib.dll, its import library
# libztsdlib.dll.a (mingw's names); no version in the file name.
file(STRINGS ${CMAKE_SOURCE_DIR}/include/ztsdlib/ztsdlib.h ZTSD_DECLARATIONS REGEX "^ZTSDLIB_API ")
set(ZTSD_DEF_TEXT "LIBRARY libztsdlib.dll\nEXPORTS\n")
foreach(line IN LISTS ZTSD_DECLARATIONS)
  string(REGEX MATCH "ztsdlib_[A-Za-z0-9_]+\\(" name "${line}")
  string(REPLACE "(" "" name "${name}")
  if(name)
    string(APPEND ZTSD_DEF_TEXT "    ${name}\n")
  endif()
endforeach()
set(ZTSD_DEF_FILE ${CMAKE_BINARY_DIR}/ztsdlib.def)
file(CONFIGURE OUTPUT ${ZTSD_DEF_FILE} CONTENT "${ZTSD_DEF_TEXT}")
set_property(DIRECTORY ${CMAKE_SOURCE_DIR} APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/include/ztsdlib/ztsdlib.h)
target_sources(ztsdlib PRIVATE ${ZTSD_DEF_FILE})
set_target_properties(ztsdlib PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR} SOVERSION "")

# Tests and tools run under Wine, through a wrapper that keeps one Wine
# prefix per build tree and starts Wine's services before the first program
# (see cmake/wineRun.sh.in).
set(ZTSD_WINE_PREFIX ${CMAKE_BINARY_DIR}/wine-prefix)
# The DLLs the tree's programs load: ours in the tree's top directory, the
# dependencies' (libcurl) in their prefixes' bin directories.
# Wine sees the build machine's / as drive Z:.
set(ZTSD_WINDOWS_PATH "Z:${CMAKE_BINARY_DIR}")
foreach(prefix IN LISTS ZTSD_WINDOWS_PREFIXES)
  if(EXISTS ${prefix}/bin)
    string(APPEND ZTSD_WINDOWS_PATH ";Z:${prefix}/bin")
  endif()
endforeach()
string(REPLACE "/" "\\" ZTSD_WINDOWS_PATH "${ZTSD_WINDOWS_PATH}")
configure_file(${CMAKE_SOURCE_DIR}/cmake/wineRun.sh.in ${CMAKE_BINARY_DIR}/wine-run @ONLY
  FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
