# Install rules, in three components:
#   runtime      libtarn.so.N.N.N and its soname
#   development  public headers, static libraries, the link libtarn.so, a CMake package (find_package(tarn),
#                with a component for each adapter of a loop) and pkg-config files
#   tools        the command-line client with its manual page and its completion, and the daemon of the
#                bundled bus
# With relative CMAKE_INSTALL_LIBDIR and CMAKE_INSTALL_INCLUDEDIR nothing installed names the folder it
# was built or installed in, so the tree can be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_tarn_cmakedir "${CMAKE_INSTALL_LIBDIR}/cmake/tarn")
set(_tarn_pkgconfigdir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(TARGETS tarn tarn_ext tarn_loops tarn_loops_conformance tarn_testing EXPORT tarn-targets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT runtime NAMELINK_COMPONENT development
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}" COMPONENT development
        INCLUDES DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}")
if(TARGET tarn_cli)
    if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
        set(_tarn_rpath "${CMAKE_INSTALL_FULL_LIBDIR}")
    else()
        # Finds its library relative to its own folder, so that the tree can be moved.
        file(RELATIVE_PATH _tarn_rpath "/tree/${CMAKE_INSTALL_BINDIR}" "/tree/${CMAKE_INSTALL_LIBDIR}")
        set(_tarn_rpath "$ORIGIN/${_tarn_rpath}")
    endif()
    set_target_properties(tarn_cli PROPERTIES INSTALL_RPATH "${_tarn_rpath}")
    install(TARGETS tarn_cli RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES "${PROJECT_SOURCE_DIR}/docs/man/tarn.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1"
            COMPONENT tools)
    # bash looks for the name of the command.
    install(FILES "${PROJECT_SOURCE_DIR}/tools/completion/tarn.bash" RENAME tarn
            DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions" COMPONENT tools)
endif()
if(TARN_TOOLS AND TARN_BUS_FOUND STREQUAL "bundled")
    # For development where there is no ubus; the test kit finds it in the PATH.
    install(TARGETS tarn-busd RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}" COMPONENT tools)
    install(FILES "${PROJECT_SOURCE_DIR}/docs/man/tarn-busd.1"
            DESTINATION "${CMAKE_INSTALL_MANDIR}/man1" COMPONENT tools)
endif()
# The adapters are headers: all are installed, whichever libraries this machine has.
foreach(_tarn_name IN LISTS TARN_LOOP_NAMES)
    list(APPEND _tarn_adapter_headers "${PROJECT_SOURCE_DIR}/loops/${_tarn_name}/include/")
endforeach()
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/"
                  "${PROJECT_SOURCE_DIR}/loops/include/"
                  "${PROJECT_SOURCE_DIR}/loops/conformance/"
                  "${PROJECT_SOURCE_DIR}/testing/include/"
                  ${_tarn_adapter_headers}
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}" COMPONENT development
        FILES_MATCHING PATTERN "*.h")
install(EXPORT tarn-targets NAMESPACE tarn:: DESTINATION "${_tarn_cmakedir}" COMPONENT development
        FILE tarnTargets.cmake)

# A static libtarn passes on what it links.
set(TARN_PASSES_ON_BUS OFF)
if(NOT BUILD_SHARED_LIBS AND TARN_BUS_FOUND STREQUAL "system")
    set(TARN_PASSES_ON_BUS ON)
endif()
configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tarn-config.cmake.in" tarnConfig.cmake
                              INSTALL_DESTINATION "${_tarn_cmakedir}")
# Before 1.0 every minor release may change the binary interface, and the soname says so too.
write_basic_package_version_file(tarnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tarnConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/tarnConfigVersion.cmake"
              "${PROJECT_SOURCE_DIR}/cmake/TarnLoops.cmake"
        DESTINATION "${_tarn_cmakedir}" COMPONENT development)

# --- pkg-config: what a program that links the static libraries must add ---
set(_tarn_private_libs -pthread)
set(TARN_PC_PRIVATE_REQUIRES "")
if(TARN_BUS_FOUND STREQUAL "system")
    # Upstream ships no pkg-config files for its libraries. Where a distribution adds them, for the very
    # libraries that were found, they are named instead of the libraries.
    find_package(PkgConfig QUIET)
    foreach(_tarn_library libubus libubox)
        set(_tarn_file "${Libubus_LIBRARY}")
        if(_tarn_library STREQUAL "libubox")
            set(_tarn_file "${Libubox_LIBRARY}")
        endif()
        get_filename_component(_tarn_dir "${_tarn_file}" DIRECTORY)
        if(PkgConfig_FOUND)
            pkg_check_modules(TARN_PC_${_tarn_library} QUIET ${_tarn_library})
        endif()
        if(TARN_PC_${_tarn_library}_FOUND AND TARN_PC_${_tarn_library}_LIBDIR STREQUAL _tarn_dir)
            list(APPEND _tarn_private_requires ${_tarn_library})
            continue()
        endif()
        # In a cross build the folder is one of this machine, not of the device.
        if(NOT CMAKE_CROSSCOMPILING AND NOT _tarn_dir IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
            list(APPEND _tarn_private_libs "-L${_tarn_dir}")
        endif()
        string(REGEX REPLACE "^lib" "-l" _tarn_library "${_tarn_library}")
        list(APPEND _tarn_private_libs ${_tarn_library})
    endforeach()
    if(_tarn_private_requires)
        list(JOIN _tarn_private_requires ", " TARN_PC_PRIVATE_REQUIRES)
        set(TARN_PC_PRIVATE_REQUIRES "\nRequires.private: ${TARN_PC_PRIVATE_REQUIRES}")
    endif()
    # With a static libtarn, libubus and libubox must be found on the user's machine.
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/FindLibubox.cmake"
                  "${PROJECT_SOURCE_DIR}/cmake/FindLibubus.cmake"
            DESTINATION "${_tarn_cmakedir}" COMPONENT development)
endif()
list(REMOVE_DUPLICATES _tarn_private_libs)
list(JOIN _tarn_private_libs " " TARN_PC_PRIVATE_LIBS)
set(TARN_PC_CFLAGS "")
if(NOT BUILD_SHARED_LIBS)
    set(TARN_PC_CFLAGS " -DTARN_STATIC")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
    # Nothing leads from there to a prefix that may still change.
    set(TARN_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
    set(TARN_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
    # The prefix as seen from the folder of the .pc files.
    file(RELATIVE_PATH _tarn_up "/tree/${_tarn_pkgconfigdir}" "/tree")
    string(REGEX REPLACE "/$" "" _tarn_up "${_tarn_up}")
    set(TARN_PC_PREFIX "\${pcfiledir}/${_tarn_up}")
    set(TARN_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
set(TARN_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
if(NOT IS_ABSOLUTE "${TARN_PC_INCLUDEDIR}")
    set(TARN_PC_INCLUDEDIR "\${prefix}/${TARN_PC_INCLUDEDIR}")
endif()
foreach(_tarn_pc tarn tarn-ext tarn-loops tarn-testing)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/${_tarn_pc}.pc.in" ${_tarn_pc}.pc @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${_tarn_pc}.pc" DESTINATION "${_tarn_pkgconfigdir}"
            COMPONENT development)
endforeach()
foreach(_tarn_name IN LISTS TARN_LOOP_NAMES)
    string(REPLACE "_" "-" TARN_PC_LOOP "${_tarn_name}")
    set(TARN_PC_LOOP_REQUIRES "")
    if(DEFINED TARN_LOOP_PACKAGE_${_tarn_name})
        set(TARN_PC_LOOP_REQUIRES ", ${TARN_LOOP_PACKAGE_${_tarn_name}}")
    endif()
    configure_file("${PROJECT_SOURCE_DIR}/cmake/tarn-loops-adapter.pc.in" tarn-loops-${TARN_PC_LOOP}.pc
                   @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tarn-loops-${TARN_PC_LOOP}.pc"
            DESTINATION "${_tarn_pkgconfigdir}" COMPONENT development)
endforeach()
