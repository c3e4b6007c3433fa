# 32-bit ARM with glibc, by the cross compiler of Debian's crossbuild-essential-armhf.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)

set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)

get_filename_component(_root "${CMAKE_CURRENT_LIST_DIR}/../../build/toolchains/root" ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH /usr/arm-linux-gnueabihf "${_root}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
