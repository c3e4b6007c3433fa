// The tests of a program that uses libtarn, with the installed test kit.
#include <tarn/testing/fake_client.h>
#include <tarn/testing/manual_loop.h>
#include <tarn/testing/private_bus.h>

int main() {
    const auto loop = std::make_shared<tarn::testing::manual_loop>();
    tarn::testing::fake_client bus(loop);
    bus.on("demo", "echo", tarn::testing::outcome::reply({{"msg", "hello"}}));
    bus.connect({});
    bool answered = false;
    bus.invoke(
        "demo", "echo", {},
        [&answered](const std::list<tarn::blob::attr>& replies, const std::error_code& failed) {
            answered = !failed && replies.size() == 1;
        },
        std::chrono::seconds(1));
    loop->drain();
    return answered ? 0 : 1;
}
