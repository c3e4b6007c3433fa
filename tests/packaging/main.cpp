/// The program that every packaging check builds and runs: a little of each part of the library,
/// on a machine where there is no bus.
#include <tarn/ext/ext.h>
#include <tarn/loops/epoll_loop.h>
#include <tarn/tarn.h>

#include <chrono>
#include <cstdlib>
#include <iostream>
#include <list>
#include <map>
#include <memory>
#include <string>
#include <system_error>

namespace {

bool as_expected = true;

void expect(bool truth, const std::string& what) {
    std::cout << (truth ? "ok      " : "FAILED  ") << what << '\n';
    as_expected = as_expected && truth;
}

} // namespace

int main() {
    // The loop outlives the client: made before it, and of static storage.
    static const auto loop = std::make_shared<tarn::loops::epoll_loop>();

    expect(tarn::version::get_string() == "0.0.1", "the version");

    const std::multimap<std::string, tarn::blob::attr> table{
        {"name", "lan"}, {"up", true}, {"mtu", 1500}};
    expect(table.find("name")->second.get<std::string>() == "lan", "a table of values");

    expect(tarn::ext::reply(table).at<int>("mtu") == 1500, "the header-only layer");

    auto& client = tarn::client::get_instance(loop);
    bool connect_reported = false;
    bool call_reported = false;
    client.connect([&](const std::error_code& error) {
        connect_reported = true;
        expect(static_cast<bool>(error), "no bus to connect to: " + error.message());
        client.invoke(
            "demo", "echo", table,
            [&](const std::list<tarn::blob::attr>& replies, const std::error_code& outcome) {
                call_reported = true;
                expect(outcome == tarn::error::msg::connection_failed && replies.empty(),
                       "a call without a connection: " + outcome.message());
                loop->stop();
            },
            std::chrono::seconds(1));
    });
    loop->run();

    expect(connect_reported && call_reported, "both handlers ran");
    return as_expected ? EXIT_SUCCESS : EXIT_FAILURE;
}
