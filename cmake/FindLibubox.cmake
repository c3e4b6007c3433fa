# Finds an installed libubox by header and library name (it ships no pkg-config file).
# Defines Libubox_FOUND, Libubox_INCLUDE_DIR, Libubox_LIBRARY and the target Libubox::ubox.
find_path(Libubox_INCLUDE_DIR NAMES libubox/uloop.h)
find_library(Libubox_LIBRARY NAMES ubox)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libubox REQUIRED_VARS Libubox_LIBRARY Libubox_INCLUDE_DIR)
if(Libubox_FOUND AND NOT TARGET Libubox::ubox)
    add_library(Libubox::ubox UNKNOWN IMPORTED)
    set_target_properties(Libubox::ubox PROPERTIES
        IMPORTED_LOCATION "${Libubox_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Libubox_INCLUDE_DIR}")
endif()
mark_as_advanced(Libubox_INCLUDE_DIR Libubox_LIBRARY)
