/// Reserved memory, for reports when there is no other.
#pragma once

#include <array>
#include <memory>
#include <new>

namespace tarn {

/// A block that is freed when memory runs out on the loop thread, where no caller could catch the
/// exception, so that it can still report. The loop thread only.
class memory_reserve {
public:
    /// Does `work`, and once more with the reserve freed when memory runs out. `work` must have
    /// done nothing when it fails. The reserve is allocated again when there is memory.
    template <class Work>
    void cover(const Work& work) {
        if (!block_) {
            block_.reset(new (std::nothrow) block);
        }
        try {
            work();
        } catch (const std::bad_alloc&) {
            if (!block_) {
                throw;
            }
            block_.reset();
            work();
        }
    }

private:
    using block = std::array<char, 16384>;
    std::unique_ptr<block> block_{new block}; // not cleared, so that it takes no pages
};

} // namespace tarn
