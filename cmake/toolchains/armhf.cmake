# 32-bit ARM with glibc, by the cross compiler of Debian's crossbuild-essential-armhf.
set(TARN_TRIPLET arm-linux-gnueabihf)
set(CMAKE_SYSTEM_PROCESSOR arm)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
