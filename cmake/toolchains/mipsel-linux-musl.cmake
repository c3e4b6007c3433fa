# 32-bit little-endian MIPS with musl: as on most routers with OpenWrt, for example.
set(TARN_ZIG_TARGET mipsel-linux-musl)
set(CMAKE_SYSTEM_PROCESSOR mipsel)
include("${CMAKE_CURRENT_LIST_DIR}/zig-musl.cmake")
