/// tarn subscribe: prints the notifications of objects.
#include "commands.h"
#include "exit_status.h"
#include "program.h"
#include "shape.h"
#include "stream.h"

#include <tarn/ext/json.h>

#include <list>
#include <set>
#include <system_error>

namespace tools {

namespace {

/// The subscription to one object.
class subscriber {
public:
    subscriber(stream& notifications, const options& given, std::string path)
        : notifications_(notifications)
        , given_(given)
        , path_(std::move(path)) {}

    void start() {
        tarn::bus::subscribe_options how;
        static_cast<tarn::bus::options&>(how) = notifications_.delivery(path_);
        how.on_registered = [this](const std::error_code& status) {
            followed_ = status;
        };
        how.answers = false; // with success, as ubus does
        states_ = the_client().notify_on_state_change([this](tarn::client::state now) {
            if (now == tarn::client::state::connected) {
                look_when_connected();
            }
        });
        link_ = the_client().get_bus().subscribe(
            path_,
            [this](const std::string& method,
                   const std::shared_ptr<tarn::client::exchange_ctx>& notification) {
                print(method, notification->args);
                return std::error_code();
            },
            [this](tarn::bus::subscription now, const std::error_code& reason) {
                follow(now, reason);
            },
            how);
    }

private:
    void print(const std::string& method, const tarn::bus::table& data) {
        std::string text =
            shape(notifications_.out(), method, tarn::ext::write_json(data), given_.json);
        if (given_.verbose) {
            text = shape(notifications_.out(), path_, text, given_.json);
        }
        notifications_.print(text);
    }

    // What is there by then has been subscribed to.
    void look_when_connected() {
        if (refused_) {
            return; // and that has been said
        }
        if (followed_ && !subscribed_) {
            notifications_.refused(path_, followed_, !known_);
        } else if (followed_) {
            remark(path_ +
                   ": will not be subscribed to when it comes back: " + followed_.message());
        } else if (!known_) {
            remark(path_ + ": not there yet; waiting for it");
        }
        known_ = true;
    }

    void follow(tarn::bus::subscription now, const std::error_code& reason) {
        subscribed_ = now == tarn::bus::subscription::subscribed;
        refused_ = now == tarn::bus::subscription::refused;
        switch (now) {
        case tarn::bus::subscription::subscribed:
            if (known_) {
                remark(path_ + ": subscribed");
            }
            break;
        case tarn::bus::subscription::lost:
            remark(path_ + ": subscription lost: " + reason.message());
            break;
        case tarn::bus::subscription::refused:
            notifications_.refused(path_, reason, !known_);
            break;
        }
        known_ = true;
    }

    stream& notifications_;
    const options& given_;
    const std::string path_;
    std::error_code followed_; ///< whether the bus says when the object comes and goes
    bool subscribed_ = false;
    bool refused_ = false;
    bool known_ = false; ///< the user knows what has become of it
    tarn::utils::scoped_link states_;
    tarn::utils::scoped_link link_;
};

} // namespace

int subscribe(const options& given) {
    if (given.words.empty()) {
        throw usage_error("subscribe takes PATH... [-s] [-T] [-v] [-t SECONDS]");
    }
    for (const auto& path : given.words) {
        refuse_empty(path);
    }
    stream notifications(given, "notification", "notifications");
    std::list<subscriber> subscribers;
    for (const auto& path : std::set<std::string>(given.words.begin(), given.words.end())) {
        subscribers.emplace_back(notifications, given, path).start();
    }
    return notifications.run();
}

} // namespace tools
