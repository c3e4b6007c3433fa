/// The steps of one event, all of which are done whatever they throw.
#pragma once

#include <exception>

namespace tarn {

/// Runs all steps of one event: the first exception is rethrown when the last step is done.
class all_steps {
public:
    template <class Step>
    void run(const Step& step) {
        try {
            step();
        } catch (...) {
            thrown_ = thrown_ ? thrown_ : std::current_exception();
        }
    }
    void pass_on() const {
        if (thrown_) {
            std::rethrow_exception(thrown_);
        }
    }

private:
    std::exception_ptr thrown_;
};

} // namespace tarn
