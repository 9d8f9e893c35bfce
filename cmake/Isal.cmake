# ISA-L, an optional accelerator: inflate, CRC-32, and the word FastDeflate.
set(MORVANE_TAR_ISAL AUTO CACHE STRING "Use ISA-L: AUTO (where found), ON, OFF")
set_property(CACHE MORVANE_TAR_ISAL PROPERTY STRINGS AUTO ON OFF)

set(MORVANE_HAS_ISAL OFF)
if(NOT MORVANE_TAR_ISAL STREQUAL "OFF")
  list(PREPEND CMAKE_MODULE_PATH ${CMAKE_CURRENT_LIST_DIR})
  find_package(Isal QUIET)
  list(POP_FRONT CMAKE_MODULE_PATH)
  if(Isal_FOUND)
    set(MORVANE_HAS_ISAL ON)
  elseif(NOT MORVANE_TAR_ISAL STREQUAL "AUTO")
    message(FATAL_ERROR "MORVANE_TAR_ISAL is ${MORVANE_TAR_ISAL}, but ISA-L was not found")
  endif()
endif()

# The sources that exist once for each engine: those of the other one are left out.
if(MORVANE_HAS_ISAL)
  set(morvane_other_engine runtime/codec/RawInflateZlib.cpp runtime/codec/ZipCRCZlib.cpp
                           runtime/codec/FastDeflateNone.cpp)
  set(morvane_isal_library Isal::isal)
else()
  set(morvane_other_engine runtime/codec/RawInflateIsal.cpp runtime/codec/ZipCRCIsal.cpp
                           runtime/codec/FastDeflateIsal.cpp)
  set(morvane_isal_library "")
endif()
