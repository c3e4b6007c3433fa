/// The loop of the test programs that bring none. In a file of its own: the linker takes it from
/// the archive only when the program has no other.
#include "support/hand_loop.h"
#include "support/test_loop.h"

namespace tarn::test {

std::shared_ptr<test_loop> make_test_loop() {
    return std::make_shared<hand_loop>();
}

} // namespace tarn::test
