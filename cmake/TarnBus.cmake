# Decides where libubox and libubus come from and defines, for either choice:
#   tarn_bus_headers  interface: the C headers, treated as system headers
#   tarn_bus          what an executable links to call libubox and libubus directly
# With the bundled bus also tarn_bus_objects, whose objects go into libtarn itself.
if(NOT TARN_BUS MATCHES "^(auto|system|bundled)$")
    message(FATAL_ERROR "TARN_BUS is '${TARN_BUS}'; it must be auto, system or bundled")
endif()

set(TARN_BUS_FOUND bundled)
if(NOT TARN_BUS STREQUAL "bundled")
    set(_tarn_required "")
    if(TARN_BUS STREQUAL "system")
        set(_tarn_required REQUIRED)
    endif()
    find_package(Libubox ${_tarn_required})
    find_package(Libubus ${_tarn_required})
    if(Libubox_FOUND AND Libubus_FOUND)
        set(TARN_BUS_FOUND system)
    endif()
endif()

if(TARN_BUS_FOUND STREQUAL "system")
    message(STATUS "tarn: using the system's libubox (${Libubox_LIBRARY}) and libubus (${Libubus_LIBRARY})")
    add_library(tarn_bus_headers INTERFACE)
    target_include_directories(tarn_bus_headers SYSTEM INTERFACE
        "${Libubox_INCLUDE_DIR}" "${Libubus_INCLUDE_DIR}")
    add_library(tarn_bus INTERFACE)
    target_link_libraries(tarn_bus INTERFACE Libubus::ubus Libubox::ubox)
else()
    message(STATUS "tarn: using the bundled bus (default socket ${TARN_BUS_SOCKET})")
    add_subdirectory("${PROJECT_SOURCE_DIR}/bus" "${PROJECT_BINARY_DIR}/bus")
endif()
