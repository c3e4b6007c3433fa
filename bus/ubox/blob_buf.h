/// What blobmsg needs of the blob buffer beyond its public functions.
#pragma once

#include "headers.h"

namespace ubox {

/// Makes `attr`, which has just been added to `buf`, the innermost open attribute, and returns the
/// cookie that blob_nest_end() closes it with.
void* open_nest(blob_buf& buf, blob_attr* attr);

} // namespace ubox
