/// What only the adapter for libuv has: its part in whether uv_run() goes on.
#include "tarn/loops/uv_loop.h"

#include <gtest/gtest.h>

namespace tarn::test {
namespace {

class UvLoop : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(uv_loop_init(&loop_), 0);
        adapter_ = std::make_unique<loops::uv_loop>(&loop_);
    }

    void TearDown() override {
        adapter_.reset();
        EXPECT_EQ(uv_run(&loop_, UV_RUN_DEFAULT), 0);
        EXPECT_EQ(uv_loop_close(&loop_), 0);
    }

    uv_loop_t loop_{};
    std::unique_ptr<loops::uv_loop> adapter_;
};

TEST_F(UvLoop, AloneDoesNotKeepTheLoopRunning) {
    adapter_->post([] { ADD_FAILURE() << "the loop ran on"; });
    EXPECT_EQ(uv_run(&loop_, UV_RUN_DEFAULT), 0);
}

TEST_F(UvLoop, KeepsTheLoopRunningWhileThatIsWanted) {
    adapter_->keep_running(true);
    int turns = 0;
    std::function<void()> again = [&] {
        if (++turns == 3) {
            adapter_->keep_running(false);
        } else {
            adapter_->post(again);
        }
    };
    adapter_->post(again);
    EXPECT_EQ(uv_run(&loop_, UV_RUN_DEFAULT), 0);
    EXPECT_EQ(turns, 3);
}

TEST_F(UvLoop, MakesRoomForAnotherBeforeItsHandleIsClosed) {
    // The next one gets the same descriptors from the kernel, and is as good.
    for (int round = 0; round < 3; ++round) {
        adapter_.reset();
        adapter_ = std::make_unique<loops::uv_loop>(&loop_);
        adapter_->keep_running(true);
        bool ran = false;
        adapter_->post([&] {
            ran = true;
            adapter_->keep_running(false);
        });
        uv_run(&loop_, UV_RUN_DEFAULT);
        EXPECT_TRUE(ran);
    }
}

} // namespace
} // namespace tarn::test
