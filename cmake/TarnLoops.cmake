# Which loops of other libraries there are adapters for, and what each needs. Used by the build, and
# by find_package(tarn) on the machine of the user: the adapters are headers, so the library that an
# adapter is for is looked for where it is used.
set(TARN_LOOP_NAMES asio glib uv sd_event qt)
# Found by pkg-config under these names.
set(TARN_LOOP_PACKAGE_glib glib-2.0)
set(TARN_LOOP_PACKAGE_uv libuv)
set(TARN_LOOP_PACKAGE_sd_event libsystemd)

# tarn_find_loop(NAME): looks for the library of that name and sets in the caller
#   TARN_LOOP_MISSING  why the adapter cannot be used, empty if it can
#   TARN_LOOP_LINK     what a user of the adapter links beside tarn::loops
macro(tarn_find_loop name)
    set(TARN_LOOP_MISSING "")
    set(TARN_LOOP_LINK "")
    if("${name}" STREQUAL "asio")
        # Both are headers, which the application includes itself: no include path is added.
        find_path(TARN_ASIO_INCLUDE_DIR asio.hpp)
        find_path(TARN_BOOST_ASIO_INCLUDE_DIR boost/asio.hpp)
        mark_as_advanced(TARN_ASIO_INCLUDE_DIR TARN_BOOST_ASIO_INCLUDE_DIR)
        if(NOT TARN_ASIO_INCLUDE_DIR AND NOT TARN_BOOST_ASIO_INCLUDE_DIR)
            set(TARN_LOOP_MISSING "neither asio.hpp nor boost/asio.hpp found")
        endif()
    elseif("${name}" STREQUAL "qt")
        # One adapter for both: the application links the Qt that it is written for, before or after.
        find_library(TARN_QT_LIBRARY NAMES Qt6Core Qt5Core)
        mark_as_advanced(TARN_QT_LIBRARY)
        if(NOT TARN_QT_LIBRARY)
            set(TARN_LOOP_MISSING "neither libQt6Core nor libQt5Core found")
        endif()
    elseif(DEFINED TARN_LOOP_PACKAGE_${name})
        find_package(PkgConfig QUIET)
        if(PkgConfig_FOUND)
            pkg_check_modules(TARN_LOOP_${name} QUIET IMPORTED_TARGET GLOBAL ${TARN_LOOP_PACKAGE_${name}})
        endif()
        if(TARN_LOOP_${name}_FOUND)
            set(TARN_LOOP_LINK PkgConfig::TARN_LOOP_${name})
        elseif(PkgConfig_FOUND)
            set(TARN_LOOP_MISSING "pkg-config knows no ${TARN_LOOP_PACKAGE_${name}}")
        else()
            set(TARN_LOOP_MISSING "no pkg-config to find ${TARN_LOOP_PACKAGE_${name}} with")
        endif()
    else()
        set(TARN_LOOP_MISSING "no such loop")
    endif()
endmacro()
