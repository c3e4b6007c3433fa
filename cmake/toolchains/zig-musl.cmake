# For the musl targets, whose toolchain files name TARN_ZIG_TARGET and include this: a compiler, a C
# library and a C++ library in one, fetched by ./dev device into build/toolchains.
set(CMAKE_SYSTEM_NAME Linux)

# Small scripts, each of which calls one of its commands for one target.
get_filename_component(_tools "${CMAKE_CURRENT_LIST_DIR}/../../build/toolchains/bin" ABSOLUTE)
if(NOT EXISTS "${_tools}/${TARN_ZIG_TARGET}-cc")
    message(FATAL_ERROR "no compiler for ${TARN_ZIG_TARGET} in ${_tools}: "
                        "./dev device ${TARN_ZIG_TARGET} puts one there")
endif()
set(CMAKE_C_COMPILER "${_tools}/${TARN_ZIG_TARGET}-cc")
set(CMAKE_CXX_COMPILER "${_tools}/${TARN_ZIG_TARGET}-c++")
set(CMAKE_AR "${_tools}/zig-ar" CACHE FILEPATH "")
set(CMAKE_RANLIB "${_tools}/zig-ranlib" CACHE FILEPATH "")

# The checks of a compiler link nothing: it compiles the C library for each new set of options that
# something is linked with.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
set(CMAKE_C_COMPILER_ID_TEST_FLAGS_FIRST -c)
set(CMAKE_CXX_COMPILER_ID_TEST_FLAGS_FIRST -c)

# Routers of MIPS have no floating-point unit, and their systems are built without. Here nothing else
# works: the unwinder that comes with this compiler does not restore the registers of the unit, so that
# a double which a function keeps in one is lost when it catches an exception.
if(TARN_ZIG_TARGET MATCHES "^mips")
    set(CMAKE_C_FLAGS_INIT "-mcpu=mips32r2+soft_float")
    set(CMAKE_CXX_FLAGS_INIT "-mcpu=mips32r2+soft_float")
endif()

# Its libc++ for MIPS is not position independent, so that no shared library can be linked with it.
set(BUILD_SHARED_LIBS OFF CACHE BOOL "")
# musl gives a thread the size of stack that the program names, or 128 KiB; this linker names 8 MiB.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -Wl,-z,stack-size=131072")

# Headers and libraries of this machine are not the device's. What CMake finds as a package is, when
# it has been put there on purpose.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH "${_tools}/../root")
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
