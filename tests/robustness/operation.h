/// The bookkeeping of one kind of operation under stress: how each of very many ended.
#pragma once

#include "tarn/link.h"

#include <atomic>
#include <memory>
#include <stdexcept>

namespace tarn::test {

/// How the operations of one kind ended. Each is counted once, when nothing refers to it any more.
struct tally {
    std::atomic<long> started{0};
    std::atomic<long> run{0};      ///< the handler ran, once
    std::atomic<long> released{0}; ///< the handler did not run, and an active link was released
    std::atomic<long> unheard{0};  ///< neither
    std::atomic<long> twice{0};    ///< the handler ran more than once
    std::atomic<long> late{0};     ///< it ran although the loop's thread had released it before
    std::atomic<long> failed_releases{0}; ///< release() threw
    std::atomic<long> alive{0};           ///< not counted yet
};

/// One operation. Its handler and everybody who might release its link share it.
class operation {
public:
    explicit operation(tally& counts)
        : counts_(counts) {
        ++counts_.started;
        ++counts_.alive;
    }
    ~operation() {
        const int runs = runs_;
        ++(runs > 1    ? counts_.twice
           : runs > 0  ? counts_.run
           : released_ ? counts_.released
                       : counts_.unheard);
        --counts_.alive;
    }
    operation(const operation&) = delete;
    operation& operator=(const operation&) = delete;

    /// To be called by the handler, on the loop's thread.
    void handled() {
        if (silenced_) {
            ++counts_.late;
        }
        ++runs_;
    }

    /// Whether the handler has run, or nobody waits for it any more.
    bool ended() const { return runs_ != 0 || given_up_; }

    /// Releases the operation's link. On the loop's thread, where handlers run, a handler that has
    /// not run yet must never run afterwards.
    void release(utils::link link, bool on_loop) {
        if (on_loop && runs_ == 0) {
            silenced_ = true;
        }
        given_up_ = true;
        // One that is inactive already has a handler that has begun, or one that was lost.
        if (link.active()) {
            released_ = true;
        }
        try {
            link.release();
        } catch (const std::exception&) {
            ++counts_.failed_releases;
        }
    }

private:
    tally& counts_;
    std::atomic<int> runs_{0};
    std::atomic<bool> given_up_{false};
    std::atomic<bool> released_{false};
    std::atomic<bool> silenced_{false};
};

} // namespace tarn::test
