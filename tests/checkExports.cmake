# Fails unless the shared library's dynamic symbols are exactly the functions
# that the public header declares with ZTSDLIB_API (nothing missing, nothing
# more), and the four family delete exports are one entry point (one address).
# Arguments: -DLIBRARY=<the shared object> -DHEADER=<include/ztsdlib/ztsdlib.h>
find_program(NM nm REQUIRED)
execute_process(COMMAND ${NM} -D --defined-only ${LIBRARY}
  OUTPUT_VARIABLE out RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "nm failed on ${LIBRARY}")
endif()

# What the library exports, with each symbol's address.
string(REPLACE "\n" ";" lines "${out}")
set(exported "")
foreach(line IN LISTS lines)
  # "<address> <type> <name>"; absolute symbols (version nodes) are not code
  # or data that the library exports.
  if(NOT line MATCHES "^([0-9a-fA-F]+) ([A-Za-z]) ([^ ]+)$")
    continue()
  endif()
  set(address "${CMAKE_MATCH_1}")
  set(type "${CMAKE_MATCH_2}")
  set(sym "${CMAKE_MATCH_3}")
  if(type STREQUAL "A")
    continue()
  endif()
  list(APPEND exported "${sym}")
  set(address_${sym} "${address}")
endforeach()

# What the header promises: every "ztsdlib_<name>(" on a line that starts a
# ZTSDLIB_API declaration (the return type never precedes a "(").
file(STRINGS ${HEADER} declarations REGEX "^ZTSDLIB_API ")
set(declared "")
foreach(line IN LISTS declarations)
  string(REGEX MATCH "ztsdlib_[A-Za-z0-9_]+\\(" name "${line}")
  string(REPLACE "(" "" name "${name}")
  if(name)
    list(APPEND declared "${name}")
  endif()
endforeach()

list(SORT exported)
list(SORT declared)
list(REMOVE_DUPLICATES declared)
set(extra ${exported})
list(REMOVE_ITEM extra ${declared})
set(missing ${declared})
list(REMOVE_ITEM missing ${exported})
if(extra)
  string(REPLACE ";" " " text "${extra}")
  message(FATAL_ERROR "exported but not declared in the public header: ${text}")
endif()
if(missing)
  string(REPLACE ";" " " text "${missing}")
  message(FATAL_ERROR "declared in the public header but not exported: ${text}")
endif()
list(LENGTH declared count)
if(count LESS 42)
  message(FATAL_ERROR "only ${count} exports declared; the header was not read right")
endif()

foreach(family TimestampCorrelator SyncableDevice SyncDomain)
  if(NOT address_ztsdlib_${family}_delete STREQUAL address_ztsdlib_Timescale_delete)
    message(FATAL_ERROR "ztsdlib_${family}_delete is not the entry point of ztsdlib_Timescale_delete")
  endif()
endforeach()
message(STATUS "${count} ztsdlib_* exports, exactly the header's; one delete entry point")
