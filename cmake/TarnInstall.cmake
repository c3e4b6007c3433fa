# Install rules: the libraries, the command-line client with its manual page and its completion, the
# public headers, a CMake package (find_package(tarn), with a component for each adapter of a loop) and
# pkg-config files. Nothing installed names the folder it was built or installed in, so the tree can
# be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(_tarn_cmakedir "${CMAKE_INSTALL_LIBDIR}/cmake/tarn")
set(_tarn_pkgconfigdir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

install(TARGETS tarn tarn_ext tarn_loops tarn_loops_conformance tarn_testing EXPORT tarn-targets
        LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
        ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
if(TARN_EXAMPLES)
    # Finds its library relative to its own folder, so that the tree can be moved.
    file(RELATIVE_PATH _tarn_libdir "${CMAKE_INSTALL_FULL_BINDIR}" "${CMAKE_INSTALL_FULL_LIBDIR}")
    set_target_properties(tarn_cli PROPERTIES INSTALL_RPATH "$ORIGIN/${_tarn_libdir}")
    install(TARGETS tarn_cli RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
    install(FILES "${PROJECT_SOURCE_DIR}/docs/man/tarn.1" DESTINATION "${CMAKE_INSTALL_MANDIR}/man1")
    # bash looks for the name of the command.
    install(FILES "${PROJECT_SOURCE_DIR}/tools/completion/tarn.bash" RENAME tarn
            DESTINATION "${CMAKE_INSTALL_DATADIR}/bash-completion/completions")
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
        DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        FILES_MATCHING PATTERN "*.h")
install(EXPORT tarn-targets NAMESPACE tarn:: DESTINATION "${_tarn_cmakedir}"
        FILE tarnTargets.cmake)

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tarn-config.cmake.in" tarnConfig.cmake
                              INSTALL_DESTINATION "${_tarn_cmakedir}")
# Before 1.0 every minor release may change the binary interface, and the soname says so too.
write_basic_package_version_file(tarnConfigVersion.cmake COMPATIBILITY SameMinorVersion)
install(FILES "${CMAKE_CURRENT_BINARY_DIR}/tarnConfig.cmake"
              "${CMAKE_CURRENT_BINARY_DIR}/tarnConfigVersion.cmake"
              "${PROJECT_SOURCE_DIR}/cmake/TarnLoops.cmake"
        DESTINATION "${_tarn_cmakedir}")

# What a program that links the static libraries must add.
set(_tarn_private_libs -pthread)
if(TARN_BUS_FOUND STREQUAL "system")
    foreach(_tarn_library ${Libubus_LIBRARY} ${Libubox_LIBRARY})
        get_filename_component(_tarn_dir "${_tarn_library}" DIRECTORY)
        # In a cross build the folder is one of this machine, not of the device.
        if(NOT CMAKE_CROSSCOMPILING AND NOT _tarn_dir IN_LIST CMAKE_CXX_IMPLICIT_LINK_DIRECTORIES)
            list(APPEND _tarn_private_libs "-L${_tarn_dir}")
        endif()
    endforeach()
    list(APPEND _tarn_private_libs -lubus -lubox)
    # With a static libtarn, libubus and libubox must be found on the user's machine.
    install(FILES "${PROJECT_SOURCE_DIR}/cmake/FindLibubox.cmake"
                  "${PROJECT_SOURCE_DIR}/cmake/FindLibubus.cmake"
            DESTINATION "${_tarn_cmakedir}")
endif()
list(REMOVE_DUPLICATES _tarn_private_libs)
list(JOIN _tarn_private_libs " " TARN_PC_PRIVATE_LIBS)
set(TARN_PC_CFLAGS "")
if(NOT BUILD_SHARED_LIBS)
    set(TARN_PC_CFLAGS " -DTARN_STATIC")
endif()
# The prefix as seen from the folder of the .pc files.
file(RELATIVE_PATH TARN_PC_PREFIX "${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig" "${CMAKE_INSTALL_PREFIX}")
string(REGEX REPLACE "/$" "" TARN_PC_PREFIX "${TARN_PC_PREFIX}")
foreach(_tarn_pc tarn tarn-ext tarn-loops tarn-testing)
    configure_file("${PROJECT_SOURCE_DIR}/cmake/${_tarn_pc}.pc.in" ${_tarn_pc}.pc @ONLY)
    install(FILES "${CMAKE_CURRENT_BINARY_DIR}/${_tarn_pc}.pc" DESTINATION "${_tarn_pkgconfigdir}")
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
            DESTINATION "${_tarn_pkgconfigdir}")
endforeach()
