/// Many callers at once, and many calls that nobody answers. TARN_TEST_LONG in the environment
/// asks for the full numbers.
#include "loop_thread.h"
#include "memory_level.h"
#include "support/bus_daemon.h"
#include "support/child_process.h"
#include "tarn/error.h"

#include <gtest/gtest.h>

#include <atomic>
#include <condition_variable>
#include <cstdlib>
#include <iostream>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace {

using namespace tarn::test;
using clock = std::chrono::steady_clock;

bool in_full() {
    return std::getenv("TARN_TEST_LONG") != nullptr;
}

long milliseconds_since(clock::time_point begin) {
    return static_cast<long>(
        std::chrono::duration_cast<std::chrono::milliseconds>(clock::now() - begin).count());
}

class Load : public ::testing::Test {
protected:
    Load() { peer_.wait_for_line("peer: ready"); }

    bus_daemon daemon_;
    child_process peer_{{TARN_TEST_PEER}};
};

TEST_F(Load, NoCallIsLostWithManyCallersAndOneThatNeverReads) {
    const int callers = in_full() ? 50 : 8;
    const int calls = in_full() ? 1000 : 200;
    child_process never_reads({TARN_TEST_NEVER_READS, std::to_string(calls)});
    never_reads.wait_for_line("never_reads: sent");
    const auto begin = clock::now();
    std::vector<std::unique_ptr<child_process>> processes;
    for (int i = 0; i < callers; ++i) {
        processes.push_back(std::make_unique<child_process>(std::vector<std::string>{
            TARN_TEST_LOAD_CALLER, std::to_string(calls), TARN_TEST_IN_FLIGHT}));
    }
    const std::string all = "load_caller: answered " + std::to_string(calls) + ", failed 0\n";
    for (const auto& process : processes) {
        EXPECT_EQ(process->read_rest(), all);
        EXPECT_EQ(process->wait(), 0);
    }
    const long took = milliseconds_since(begin);
    std::cout << callers << " processes, " << calls
              << " calls each, " TARN_TEST_IN_FLIGHT " in flight: " << took << " ms, "
              << 1000L * callers * calls / std::max(took, 1L) << " calls/s\n";
}

/// What has become of the calls that nobody answers.
struct mute_counts {
    std::mutex lock;
    std::condition_variable all;
    int ended = 0;
    int timed_out = 0;
    int twice = 0;
    std::vector<char> seen;
};

void call_in_vain(int calls, mute_counts& counts) {
    counts.seen.assign(static_cast<std::size_t>(calls), 0);
    for (int i = 0; i < calls; ++i) {
        bus_client().invoke(
            "peer", "hold", {},
            [&counts, i](const std::list<tarn::blob::attr>&, const std::error_code& code) {
                const std::lock_guard<std::mutex> guard(counts.lock);
                char& seen = counts.seen[static_cast<std::size_t>(i)];
                counts.twice += seen;
                seen = 1;
                counts.timed_out += code == tarn::error::msg::timeout ? 1 : 0;
                if (++counts.ended == static_cast<int>(counts.seen.size())) {
                    counts.all.notify_all();
                }
            },
            std::chrono::seconds(1));
    }
    std::unique_lock<std::mutex> guard(counts.lock);
    counts.all.wait_for(guard, patience, [&] { return counts.ended == calls; });
}

TEST_F(Load, EveryCallToAMuteServiceTimesOutOnce) {
    const int calls = in_full() ? 100000 : 5000;
    count_every_malloc();
    const loop_thread loop;
    // The first few make what is made once.
    mute_counts warm_up;
    ASSERT_FALSE(loop_thread::connect());
    call_in_vain(100, warm_up);
    loop_thread::disconnect();
    loop_thread::run([] {});
    const held_memory before = memory_held();
    const long malloc_before = malloc_bytes();
    {
        mute_counts counts;
        ASSERT_FALSE(loop_thread::connect());
        const auto begin = clock::now();
        call_in_vain(calls, counts);
        const long timed_out = milliseconds_since(begin);
        // Returns when the private thread has given up the last of them.
        loop_thread::disconnect();
        const long settled = milliseconds_since(begin);
        EXPECT_EQ(counts.timed_out, calls);
        EXPECT_EQ(counts.ended, calls);
        EXPECT_EQ(counts.twice, 0);
        std::cout << calls << " calls with a limit of 1 s to a mute service: all timed out after "
                  << timed_out << " ms, all given up after " << settled << " ms\n";
    }
    loop_thread::run([] {});
    const held_memory after = memory_held();
    const long malloc_after = malloc_bytes();
    std::cout << "memory: " << before.blocks << " blocks of " << before.bytes << " bytes before, "
              << after.blocks << " of " << after.bytes << " after; malloc in all " << malloc_before
              << " before, " << malloc_after << " after\n";
    EXPECT_TRUE(back_at_its_level(before, after));
    EXPECT_LE(malloc_after - malloc_before, malloc_tolerance);
}

} // namespace
