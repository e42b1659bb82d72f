# Cross-building for 64-bit Windows on Debian with mingw-w64 (the posix
# flavour of GCC: the win32 one has no std::thread, std::mutex or
# std::future). Everything is linked statically against the compiler's
# runtimes, so the outputs need no DLL but Windows' own and ours.
#
# ZTSD_WINDOWS_PREFIXES (a list, optional): the install prefixes of the
# cross-built dependencies (scripts/windowsDeps prints them); libraries,
# headers, CMake packages and pkg-config files are looked up there only,
# never on the build machine.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(ZTSD_MINGW x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZTSD_MINGW}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZTSD_MINGW}-g++-posix)
set(CMAKE_RC_COMPILER ${ZTSD_MINGW}-windres)
set(CMAKE_AR ${ZTSD_MINGW}-gcc-ar-posix CACHE FILEPATH "")
set(CMAKE_RANLIB ${ZTSD_MINGW}-gcc-ranlib-posix CACHE FILEPATH "")

set(CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZTSD_WINDOWS_PREFIXES)
set(CMAKE_FIND_ROOT_PATH /usr/${ZTSD_MINGW} ${ZTSD_WINDOWS_PREFIXES})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config sees the dependencies' .pc files and nothing of the build machine.
set(pc_dirs "")
foreach(prefix IN LISTS ZTSD_WINDOWS_PREFIXES)
  list(APPEND pc_dirs ${prefix}/lib/pkgconfig ${prefix}/share/pkgconfig)
endforeach()
string(REPLACE ";" ":" pc_dirs "${pc_dirs}")
set(ENV{PKG_CONFIG_LIBDIR} "${pc_dirs}")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${CMAKE_SHARED_LINKER_FLAGS_INIT}")
