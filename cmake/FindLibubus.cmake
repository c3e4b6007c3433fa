# Finds an installed libubus by header and library name (it ships no pkg-config file).
# Defines Libubus_FOUND, Libubus_INCLUDE_DIR, Libubus_LIBRARY and the target Libubus::ubus.
find_path(Libubus_INCLUDE_DIR NAMES libubus.h)
find_library(Libubus_LIBRARY NAMES ubus)
include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(Libubus REQUIRED_VARS Libubus_LIBRARY Libubus_INCLUDE_DIR)
if(Libubus_FOUND AND NOT TARGET Libubus::ubus)
    add_library(Libubus::ubus UNKNOWN IMPORTED)
    set_target_properties(Libubus::ubus PROPERTIES
        IMPORTED_LOCATION "${Libubus_LIBRARY}"
        INTERFACE_INCLUDE_DIRECTORIES "${Libubus_INCLUDE_DIR}")
    find_package(Libubox QUIET)
    if(Libubox_FOUND)
        set_property(TARGET Libubus::ubus APPEND PROPERTY INTERFACE_LINK_LIBRARIES Libubox::ubox)
    endif()
endif()
mark_as_advanced(Libubus_INCLUDE_DIR Libubus_LIBRARY)
