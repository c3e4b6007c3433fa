/// Runs the conformance suite on the adapter of the driver that the build names.
#include TARN_TEST_DRIVER

#include "tarn/loops/conformance.h"

namespace {

using tarn::test::loop_driver;

TARN_EVENT_LOOP_CONFORMANCE(Adapter, loop_driver);
#ifdef TARN_TEST_DRIVER_THROWS
TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(Adapter, loop_driver);
#endif

} // namespace
