// Publishes the object "door" until interrupted. Before it opens it asks its subscribers, and when
// it is open it notifies them. See subscribe.cpp.
#include <tarn/ext/app.h>
#include <tarn/ext/service.h>

#include <iostream>

struct vote {
    std::optional<bool> open;
};
TARN_FIELDS(vote, open)
using votes = tarn::ext::result<tarn::ext::answers<vote>>;

int main() {
    tarn::ext::app app;
    tarn::ext::service door(app.bus(), "door");
    door.method("open", {"name"},
                [&door](const std::string& name, const tarn::ext::responder<bool>& answer) {
                    const tarn::blob::table which{{"name", name}};
                    const auto decide = [&door, which, answer](const votes& arrived) {
                        bool agreed = arrived.has_value();
                        for (const auto& each : arrived.value_or(tarn::ext::answers<vote>())) {
                            // Who stays silent is not among them, and agrees.
                            agreed = agreed && each && each->open.value_or(true);
                        }
                        if (agreed) {
                            door.notify("opened", which, nullptr); // waits for no answers
                        }
                        answer.answer(agreed);
                    };
                    door.notify("may-open", which, std::chrono::seconds(2), decide);
                });
    door.on_subscribers(
        [](bool some) { std::cout << (some ? "subscribers" : "no subscribers") << std::endl; });
    door.on_published([](const std::error_code& failed) {
        std::cout << "door: " << (failed ? failed.message() : "ready") << std::endl;
    });
    door.publish();
    return app.run_forever();
}
