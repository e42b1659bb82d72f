# The timestamp service client and server code, generated at build time from
# src/timestampservice/timestampService.thrift with the Thrift compiler and
# compiled into the library objects. Nothing generated is committed.
#
# Output: ${CMAKE_BINARY_DIR}/generated/timestampservice/, included as
# "timestampservice/timestampService.h" (the generated directory is already
# on ztsdlib_obj's include path).
find_program(ZTSD_THRIFT_COMPILER thrift REQUIRED)
pkg_check_modules(THRIFT REQUIRED IMPORTED_TARGET thrift)

set(ZTSD_THRIFT_IDL ${CMAKE_SOURCE_DIR}/src/timestampservice/timestampService.thrift)
set(ZTSD_THRIFT_OUT ${CMAKE_BINARY_DIR}/generated/timestampservice)
set(ZTSD_THRIFT_SOURCES
  ${ZTSD_THRIFT_OUT}/timestampService.cpp
  ${ZTSD_THRIFT_OUT}/timestampService_types.cpp)
set(ZTSD_THRIFT_HEADERS
  ${ZTSD_THRIFT_OUT}/timestampService.h
  ${ZTSD_THRIFT_OUT}/timestampService_types.h)

add_custom_command(
  OUTPUT ${ZTSD_THRIFT_SOURCES} ${ZTSD_THRIFT_HEADERS}
  COMMAND ${CMAKE_COMMAND} -E make_directory ${ZTSD_THRIFT_OUT}
  COMMAND ${ZTSD_THRIFT_COMPILER} --gen cpp:no_skeleton -out ${ZTSD_THRIFT_OUT} ${ZTSD_THRIFT_IDL}
  DEPENDS ${ZTSD_THRIFT_IDL}
  COMMENT "Generating the timestamp service code from timestampService.thrift"
  VERBATIM)

target_sources(ztsdlib_obj PRIVATE ${ZTSD_THRIFT_SOURCES} ${ZTSD_THRIFT_HEADERS})
# Generated code is not ours to fix: its warnings never fail the build.
set_source_files_properties(${ZTSD_THRIFT_SOURCES} PROPERTIES
  GENERATED TRUE
  COMPILE_OPTIONS "-w")
target_link_libraries(ztsdlib_obj PUBLIC PkgConfig::THRIFT)
