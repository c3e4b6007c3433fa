/// The headers of libubus, and of the libubox below it, for the bundled bus itself.
#pragma once

#include "ubox/headers.h"

#include <libubus.h>
