/// Everything of libtarn in one include.
#pragma once

#include "tarn/blob.h"
#include "tarn/bus.h"
#include "tarn/client.h"
#include "tarn/error.h"
#include "tarn/event_loop.h"
#include "tarn/link.h"
#include "tarn/misc.h"
#include "tarn/stats.h"
#include "tarn/uloop.h"
#include "tarn/version.h"
