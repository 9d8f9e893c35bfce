# Finds ISA-L: Isal_FOUND and the target Isal::isal. Serves this build and, installed beside it, the package.
find_path(ISAL_INCLUDE_DIR isa-l/igzip_lib.h)
find_library(ISAL_LIBRARY isal)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Isal REQUIRED_VARS ISAL_LIBRARY ISAL_INCLUDE_DIR)
mark_as_advanced(ISAL_INCLUDE_DIR ISAL_LIBRARY)

if(Isal_FOUND AND NOT TARGET Isal::isal)
  add_library(Isal::isal UNKNOWN IMPORTED)
  set_target_properties(Isal::isal PROPERTIES
    IMPORTED_LOCATION "${ISAL_LIBRARY}"
    INTERFACE_INCLUDE_DIRECTORIES "${ISAL_INCLUDE_DIR}")
endif()
