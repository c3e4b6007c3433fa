/// Everything of tarn::ext that needs no other library than libtarn, in one include. Not in it are
/// app.h, which needs tarn::loops, and json.h, which needs nlohmann-json.
#pragma once

#include "tarn/ext/await.h"
#include "tarn/ext/backoff.h"
#include "tarn/ext/call.h"
#include "tarn/ext/convert.h"
#include "tarn/ext/fields.h"
#include "tarn/ext/future.h"
#include "tarn/ext/in_flight_limit.h"
#include "tarn/ext/mismatch.h"
#include "tarn/ext/print.h"
#include "tarn/ext/reply.h"
#include "tarn/ext/responder.h"
#include "tarn/ext/result.h"
#include "tarn/ext/service.h"
#include "tarn/ext/task.h"
#include "tarn/ext/watch.h"
