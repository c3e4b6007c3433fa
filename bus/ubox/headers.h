/// The headers of libubox for the bundled bus itself. They have no guard for C++ of their own; the
/// C library's headers come first, so that none of them is read inside it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <sys/time.h>

extern "C" {
#include <libubox/avl.h>
#include <libubox/blob.h>
#include <libubox/blobmsg.h>
#include <libubox/list.h>
#include <libubox/uloop.h>
}
