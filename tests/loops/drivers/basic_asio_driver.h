/// Drives an adapter for io_contexts of either Asio.
#pragma once

#include "loops/drivers/driver.h"

namespace tarn::test {

template <class IoContext, class Adapter>
class basic_asio_driver : public driver<Adapter> {
public:
    basic_asio_driver() { make_loop(); }
    ~basic_asio_driver() { this->drop_loop(); }

    /// In place of the adapter that there is.
    void make_loop() {
        this->drop_loop();
        this->adapter_ = std::make_unique<Adapter>(context_);
    }

    bool run_until(const std::function<bool()>& done, std::chrono::milliseconds limit) {
        return this->step_until(done, limit, [this] { context_.run_one_for(pulse); });
    }

private:
    IoContext context_;
};

} // namespace tarn::test
