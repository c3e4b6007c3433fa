# 64-bit ARM with musl: as on most routers with OpenWrt, for example.
set(TARN_ZIG_TARGET aarch64-linux-musl)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
include("${CMAKE_CURRENT_LIST_DIR}/zig-musl.cmake")
