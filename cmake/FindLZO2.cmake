# Finds liblzo2; defines the imported target LZO2::LZO2.
find_path(LZO2_INCLUDE_DIR lzo/lzo1x.h)
find_library(LZO2_LIBRARY lzo2)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(LZO2 REQUIRED_VARS LZO2_LIBRARY LZO2_INCLUDE_DIR)
if(LZO2_FOUND AND NOT TARGET LZO2::LZO2)
  add_library(LZO2::LZO2 UNKNOWN IMPORTED)
  set_target_properties(LZO2::LZO2 PROPERTIES
    IMPORTED_LOCATION ${LZO2_LIBRARY}
    INTERFACE_INCLUDE_DIRECTORIES ${LZO2_INCLUDE_DIR})
endif()
mark_as_advanced(LZO2_INCLUDE_DIR LZO2_LIBRARY)
