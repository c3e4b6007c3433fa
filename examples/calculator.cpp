// Publishes the object "calculator" until interrupted. Its methods are functions: the parameters
// are read from the fields of a call, and what is returned is the answer.
//
// Try: tarn call calculator divide '{"a": 7, "b": 2}'
#include <tarn/ext/app.h>
#include <tarn/ext/service.h>

#include <iostream>
#include <limits>

struct quotient {
    int whole;
    int rest;
};
TARN_FIELDS(quotient, whole, rest)

tarn::ext::result<quotient> divide(int a, int b) {
    if (b == 0 || (b == -1 && a == std::numeric_limits<int>::min())) {
        return tarn::error::msg::invalid_argument; // any caller may try
    }
    return quotient{a / b, a % b};
}

int main() {
    tarn::ext::app app;
    tarn::ext::service calculator(app.bus(), "calculator");
    calculator.method("divide", {"a", "b"}, divide)
        .method("add", {"a", "b"}, [](long long a, std::optional<long long> b) {
            long long sum = 0; // answers {"result": ...}
            return __builtin_add_overflow(a, b.value_or(1), &sum)
                       ? tarn::ext::result<long long>(tarn::error::msg::invalid_argument)
                       : sum;
        });
    calculator.on_published([](const std::error_code& failed) {
        std::cout << "calculator: " << (failed ? failed.message() : "ready") << std::endl;
    });
    calculator.publish();
    return app.run_forever(); // until SIGINT or SIGTERM; reconnects meanwhile
}
