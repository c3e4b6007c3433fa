# For the glibc targets, whose toolchain files name TARN_TRIPLET and include this: a cross compiler of
# Debian and the C library that comes with it.
set(CMAKE_SYSTEM_NAME Linux)

set(CMAKE_C_COMPILER ${TARN_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${TARN_TRIPLET}-g++)

get_filename_component(_root "${CMAKE_CURRENT_LIST_DIR}/../../build/toolchains/root" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH "/usr/${TARN_TRIPLET}" "${_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
