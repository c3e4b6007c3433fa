/// A number of 64 bits that threads share.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <type_traits>

namespace tarn {

/// A number that any thread may change and read. Who reads a change finds what that thread had
/// changed before: so what has ended is never more than what has started, read after it.
class atomic_counter {
public:
    void add(std::uint64_t n = 1) noexcept { value_.fetch_add(n, std::memory_order_release); }
    void subtract(std::uint64_t n = 1) noexcept { value_.fetch_sub(n, std::memory_order_release); }
    /// Makes it `n` unless it is more.
    void raise_to(std::uint64_t n) noexcept {
        std::uint64_t value = get();
        while (n > value && !value_.compare_exchange_weak(value, n, std::memory_order_relaxed)) {}
    }
    std::uint64_t get() const noexcept { return value_.load(std::memory_order_acquire); }

private:
    std::atomic<std::uint64_t> value_{0};
};

/// The same for a processor without an instruction for that, as 32-bit MIPS. The lock of its own
/// spares the device libatomic, which does no better there.
class locked_counter {
public:
    void add(std::uint64_t n = 1) noexcept {
        const std::lock_guard<std::mutex> guard(lock_);
        value_ += n;
    }
    void subtract(std::uint64_t n = 1) noexcept {
        const std::lock_guard<std::mutex> guard(lock_);
        value_ -= n;
    }
    void raise_to(std::uint64_t n) noexcept {
        const std::lock_guard<std::mutex> guard(lock_);
        if (n > value_) {
            value_ = n;
        }
    }
    std::uint64_t get() const noexcept {
        const std::lock_guard<std::mutex> guard(lock_);
        return value_;
    }

private:
    mutable std::mutex lock_;
    std::uint64_t value_ = 0;
};

using counter = std::conditional_t<std::atomic<std::uint64_t>::is_always_lock_free, atomic_counter,
                                   locked_counter>;

} // namespace tarn
