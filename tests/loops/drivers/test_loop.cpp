/// Makes the client's test suites run over the loop of the driver that the build names.
#include TARN_TEST_DRIVER

#include "loops/drivers/driven_loop.h"

namespace tarn::test {

std::shared_ptr<test_loop> make_test_loop() {
    return std::make_shared<driven_loop<loop_driver>>();
}

} // namespace tarn::test
