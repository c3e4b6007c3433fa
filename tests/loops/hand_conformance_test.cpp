/// Runs the conformance suite on the hand-driven loop of the tests.
#include "tarn/loops/conformance.h"

#include "support/hand_loop.h"

namespace {

using tarn::test::hand_loop;

class hand_driver {
public:
    tarn::utils::event_loop& loop() { return *loop_; }
    void drop_loop() { loop_.reset(); }
    std::chrono::nanoseconds now() { return loop_->now(); }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        const auto end = std::chrono::steady_clock::now() + limit;
        while (!done()) {
            if (std::chrono::steady_clock::now() >= end) {
                return false;
            }
            for (std::size_t left = loop_->waiting_tasks(); left > 0 && !done(); --left) {
                loop_->run_one();
            }
            if (loop_->advance(std::chrono::seconds(0)) == 0 &&
                !loop_->wait_for_task(std::chrono::milliseconds(1))) {
                loop_->advance(std::chrono::seconds(1));
            }
        }
        return true;
    }

private:
    std::unique_ptr<hand_loop> loop_ = std::make_unique<hand_loop>();
};

TARN_EVENT_LOOP_CONFORMANCE(HandLoop, hand_driver);
TARN_EVENT_LOOP_EXCEPTION_CONFORMANCE(HandLoop, hand_driver);

} // namespace
