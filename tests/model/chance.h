/// The choices of a sequence: numbers that one seed gives again and again, on every machine.
#pragma once

#include <cstdint>

namespace tarn::test {

/// A small generator. Each thread has its own.
class chance {
public:
    explicit chance(std::uint64_t seed = 0)
        : state_(seed) {}

    std::uint64_t next() {
        std::uint64_t z = state_ += 0x9e3779b97f4a7c15;
        z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9;
        z = (z ^ (z >> 27)) * 0x94d049bb133111eb;
        return z ^ (z >> 31);
    }

    /// From 0 to n - 1.
    unsigned below(unsigned n) { return static_cast<unsigned>(next() % n); }
    bool percent(unsigned share) { return below(100) < share; }

private:
    std::uint64_t state_;
};

} // namespace tarn::test
