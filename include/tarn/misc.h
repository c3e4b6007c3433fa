/// Callback plumbing: callback lists, and wrappers that tie a handler to the life of an object or
/// to a link.
#pragma once

#include "tarn/misc/callable_traits.h"
#include "tarn/misc/link_handler.h"
#include "tarn/misc/shared_ptr_tracker.h"
#include "tarn/misc/signal.h"
#include "tarn/misc/tie_handler.h"
