// Calls the service "demo" every second and prints what has happened so far: the counters that a
// program of months puts into its log, or answers with when it is asked.
#include <tarn/bus.h>
#include <tarn/ext/app.h>

#include <iostream>

using std::chrono::seconds;

void print(const tarn::stats& now) {
    std::uint64_t failed = 0;
    for (const auto& [code, count] : now.calls_ended) {
        failed += code ? count : 0;
    }
    std::cout << "connections " << now.connections_made << " (lost " << now.connections_lost
              << "), calls " << now.calls_started << " (failed " << failed << ", pending "
              << now.calls_pending << "), events " << now.events_received << " (dropped "
              << now.dropped << "), longest queue " << now.to_application.highest << ", bytes out "
              << now.bytes_sent << ", in " << now.bytes_received << std::endl;
}

int main() {
    tarn::ext::app app;
    const auto timer = app.loop().create_timer();
    timer->set_handler([&app, &timer] {
        tarn::ext::call(app.bus(), "demo", "echo", {{"msg", "hello"}}, seconds(5),
                        [](const tarn::ext::result<tarn::ext::reply>&) {});
        print(app.bus().get_bus().stats());
        timer->set_timeout(seconds(1));
    });
    timer->set_timeout(seconds(1));
    return app.run_forever();
}
