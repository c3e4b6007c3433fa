# 32-bit big-endian MIPS with musl: as on most routers with OpenWrt, for example.
set(TARN_ZIG_TARGET mips-linux-musl)
set(CMAKE_SYSTEM_PROCESSOR mips)
include("${CMAKE_CURRENT_LIST_DIR}/zig-musl.cmake")
