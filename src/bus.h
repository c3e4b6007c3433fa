/// The one place that includes the C headers of libubox and libubus. Not every release of them
/// guards its declarations for C++, so the guard is put here; the C library's own headers come
/// first, so that none of them is read inside it.
#pragma once

#include <cstdbool>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <unistd.h>

extern "C" {
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/uloop.h>
#include <libubus.h>
}
