/// tarn::ext::backoff: how long client::auto_connect() waits between its attempts.
#pragma once

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <random>

namespace tarn::ext {

/// A back-off for client::auto_connect():
///
///     link = bus.auto_connect(backoff::exponential(1s, 1min).with_jitter());
///
/// No delay is less than one second, which would turn reconnection off.
/// Thread: any; one object, and its copies, may be used on several threads at once.
class backoff {
public:
    /// The same delay before every attempt.
    static backoff constant(std::chrono::seconds delay) { return {delay, delay}; }

    /// `first` before the first attempt, twice as much before each further one, and never more than
    /// `most` (or `first`, if that is more).
    static backoff exponential(std::chrono::seconds first, std::chrono::seconds most) {
        return {first, most};
    }

    /// The same with every delay at random between its half and itself, in whole seconds, so that
    /// programs that lost the same bus do not all come back at once. Delays of 1 s stay. Throws
    /// what std::random_device and an allocation throw.
    backoff with_jitter() const {
        backoff jittered = *this;
        jittered.random_ = std::make_shared<std::atomic<std::uint32_t>>(std::random_device()());
        return jittered;
    }

    /// The delay before attempt number `attempt`, 1 being the first. Never throws.
    std::chrono::seconds operator()(long long attempt) const noexcept {
        std::chrono::seconds delay = first_;
        for (long long n = 1; n < attempt && delay < most_; ++n) {
            delay = delay > most_ / 2 ? most_ : delay * 2;
        }
        return random_ ? jittered(delay) : delay;
    }

private:
    backoff(std::chrono::seconds first, std::chrono::seconds most)
        : first_(std::max(first, std::chrono::seconds(1)))
        , most_(std::max(most, first_)) {}

    std::chrono::seconds jittered(std::chrono::seconds delay) const noexcept {
        const std::chrono::seconds least = delay - delay / 2;
        // Above this many seconds, which are 136 years, the rest of the range is not used.
        const auto range = static_cast<std::uint64_t>(
            std::min<long long>((delay - least).count(), UINT32_MAX - 1));
        const std::uint64_t share = ((range + 1) * next_random()) >> 32U;
        return least + std::chrono::seconds(static_cast<long long>(share));
    }

    /// A counter whose bits are mixed. Not std::mt19937, since it needs no lock this way.
    std::uint32_t next_random() const noexcept {
        std::uint32_t bits = random_->fetch_add(0x9e3779b9U, std::memory_order_relaxed);
        bits = (bits ^ (bits >> 16U)) * 0x85ebca6bU;
        bits = (bits ^ (bits >> 13U)) * 0xc2b2ae35U;
        return bits ^ (bits >> 16U);
    }

    std::chrono::seconds first_;
    std::chrono::seconds most_;
    std::shared_ptr<std::atomic<std::uint32_t>> random_; ///< null without jitter
};

} // namespace tarn::ext
