// Publishes the object "slow", whose method "sum" is answered by a worker thread while the loop
// goes on: a parameter of type responder is the right to answer later, from any thread.
//
// Try: tarn call slow sum '{"numbers": [1, 2, 39]}'
#include <tarn/ext/app.h>
#include <tarn/ext/service.h>

#include <future>
#include <iostream>
#include <list>
#include <vector>

int main() {
    tarn::ext::app app;
    std::list<std::future<void>> workers; // its destructor waits for them
    tarn::ext::service slow(app.bus(), "slow");
    slow.method("sum", {"numbers"},
                [&workers](const std::vector<long long>& numbers,
                           const tarn::ext::responder<long long>& caller) {
                    workers.remove_if([](const std::future<void>& one) {
                        return one.wait_for(std::chrono::seconds(0)) == std::future_status::ready;
                    });
                    if (workers.size() >= 8) { // anybody may call, as often as they like
                        return caller.answer(tarn::error::msg::no_response);
                    }
                    workers.push_back(std::async(std::launch::async, [=] {
                        unsigned long long sum = 0; // one of more than 64 bits wraps around
                        for (const long long number : numbers) {
                            sum += static_cast<unsigned long long>(number);
                        }
                        // Dropped without an answer, the responder would answer unknown_error.
                        caller.answer(static_cast<long long>(sum));
                    }));
                });
    slow.on_published([](const std::error_code& failed) {
        std::cout << "slow: " << (failed ? failed.message() : "ready") << std::endl;
    });
    slow.publish();
    return app.run_forever();
}
