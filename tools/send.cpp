/// tarn send: sends one event.
#include "commands.h"
#include "input.h"
#include "one_shot.h"

namespace tools {

int send(const options& given) {
    if (given.words.empty() || given.words.size() > 2 || given.json) {
        throw usage_error("send takes ID [JSON] [-t SECONDS]");
    }
    const std::string& id = given.words[0];
    const tarn::blob::table data = read_message(given.words, 1);
    return run_once(given, id, [&](tarn::bus& bus, const outcome_handler& done) {
        return bus.send_event(id, data, done);
    });
}

} // namespace tools
