# Finds jansson; defines the imported target Jansson::Jansson.
find_path(JANSSON_INCLUDE_DIR jansson.h)
find_library(JANSSON_LIBRARY jansson)
if(JANSSON_INCLUDE_DIR)
  file(STRINGS ${JANSSON_INCLUDE_DIR}/jansson.h Jansson_VERSION REGEX "define JANSSON_VERSION +\"")
  string(REGEX REPLACE ".*\"(.*)\".*" "\\1" Jansson_VERSION "${Jansson_VERSION}")
endif()
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Jansson
  REQUIRED_VARS JANSSON_LIBRARY JANSSON_INCLUDE_DIR VERSION_VAR Jansson_VERSION)
if(Jansson_FOUND AND NOT TARGET Jansson::Jansson)
  add_library(Jansson::Jansson UNKNOWN IMPORTED)
  set_target_properties(Jansson::Jansson PROPERTIES
    IMPORTED_LOCATION ${JANSSON_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${JANSSON_INCLUDE_DIR})
endif()
mark_as_advanced(JANSSON_INCLUDE_DIR JANSSON_LIBRARY)
