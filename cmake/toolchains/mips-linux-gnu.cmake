# 32-bit big-endian MIPS with glibc, by Debian's g++-mips-linux-gnu: here the library is shared.
set(TARN_TRIPLET mips-linux-gnu)
set(CMAKE_SYSTEM_PROCESSOR mips)
include("${CMAKE_CURRENT_LIST_DIR}/debian-cross.cmake")
