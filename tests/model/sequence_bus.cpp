/// The operations of tarn::bus in a sequence, and what their handlers see.
#include "journal.h"
#include "place.h"
#include "sequence.h"

#include "tarn/error.h"

#include <algorithm>
#include <unistd.h>
#include <utility>

namespace tarn::test {

namespace {

std::string own_name(const step& s) {
    return own_names.at(static_cast<std::size_t>(s.name));
}

bus::table token(const model_operation& op) {
    return {{"token", blob::attr(op.planned.id)}};
}

long number_in(const bus::table& data) {
    const auto field = data.find("n");
    return field == data.end() ? 0 : static_cast<long>(field->second.get<unsigned int>());
}

} // namespace

/// One delivery of a standing operation, while its handler runs.
class sequence::delivery {
public:
    delivery(sequence& s, model_operation& op, const std::string& what)
        : op_(op)
        , busy_(s.busy_)
        , handling_(here.handlers)
        , delivering_(op.delivering) {
        if (!s.world_.loop().on_its_thread() || here.cancels != 0) {
            s.result().fail(op.name + ": delivers outside the loop");
        }
        if (std::find(here.calls.begin(), here.calls.end(), &op) != here.calls.end()) {
            s.result().fail(op.name + ": delivers inside the call");
        }
        if (op.delivering > 1) {
            s.result().fail(op.name + ": delivers while it delivers");
        }
        s.begin_handler(op, what);
        // One may have been on its way to the handler while another thread released the link.
        if (op.release_returned && ++op.after_release > 1) {
            s.result().fail(op.name + ": goes on delivering after its release");
        }
    }

    /// For the end of the handler: its steps, the first time.
    void act(sequence& s) {
        if (++op_.runs == 1) {
            s.act_inside(op_.planned.inside, op_.planned.throws);
        }
    }

private:
    model_operation& op_;
    inside_of<std::atomic<int>> busy_;
    inside_of<int> handling_;
    inside_of<std::atomic<int>> delivering_;
};

// --- operations --------------------------------------------------------------------------------

utils::link sequence::call_bus(model_operation& op) {
    tarn::bus& bus = world_.bus().get_bus();
    const step& s = op.planned;
    switch (s.what) {
    case act::send_event:
        return bus.send_event(own_event_id, token(op), completion(op));
    case act::objects: {
        const std::string pattern = object_patterns.at(static_cast<std::size_t>(s.pattern));
        if (s.silent) {
            return bus.objects(pattern, {});
        }
        return bus.objects(
            pattern, [this, self = witness(op)](const std::vector<bus::object_info>& found,
                                                const std::error_code& code) {
                if (!code) {
                    check_found(*self, found);
                } else if (!found.empty()) {
                    result().fail(self->name + ": objects were found although it failed");
                }
                report(*self, code);
            });
    }
    case act::await_objects:
        return bus.wait_for(awaited_by(s), std::chrono::seconds(s.limit), completion(op));
    case act::notify:
        return bus.notify(own_name(s), notification_methods.front(), token(op), completion(op));
    case act::ask:
        return ask(op);
    case act::listen:
        return bus.listen(
            event_patterns.at(static_cast<std::size_t>(s.pattern)),
            [this, self = witness(op)](const std::string& id, const bus::table& data) {
                hear_event(*self, id, data);
            },
            how(op));
    case act::on_object:
        return bus.on_object(
            object_patterns.at(static_cast<std::size_t>(s.pattern)),
            [this, self = witness(op)](bus::presence what, const std::string& path,
                                       std::uint32_t id) { tell_presence(*self, what, path, id); },
            how(op));
    case act::follow:
        return follow(op);
    case act::on_subscribers:
        return bus.on_subscribers(
            own_name(s), [this, self = witness(op)](bool any) { tell_subscribers(*self, any); });
    case act::monitor:
        return bus.monitor(
            [this, self = witness(op)](const bus::message&) {
                delivery now(*this, *self, "a message");
                ++self->messages;
                now.act(*this);
            },
            how(op));
    default:
        return {};
    }
}

utils::link sequence::ask(model_operation& op) {
    const step& s = op.planned;
    bus::answers_handler handler;
    if (!s.silent) {
        handler = [this, self = witness(op)](const std::vector<bus::notify_answer>& answers,
                                             const std::error_code& code) {
            if (!code) {
                check_answers(*self, answers);
            }
            report(*self, code);
        };
    }
    return world_.bus().get_bus().notify(
        own_name(s), notification_methods.at(static_cast<std::size_t>(s.method)), token(op),
        std::chrono::seconds(s.limit), handler);
}

utils::link sequence::follow(model_operation& op) {
    const step& s = op.planned;
    bus::notification_handler handler;
    if (!s.silent) {
        handler = [this, self = witness(op)](const std::string&, const context& ctx) {
            return take_notification(*self, ctx);
        };
    }
    bus::subscribe_options options;
    static_cast<bus::options&>(options) = how(op);
    options.answers = s.answers;
    return world_.bus().get_bus().subscribe(
        followed_by(s), handler,
        [this, self = witness(op)](bus::subscription now, const std::error_code& why) {
            tell_subscription(*self, now, why);
        },
        options);
}

bus::options sequence::how(model_operation& op) {
    bus::options chosen;
    if (op.planned.most != 0) {
        chosen.most_undelivered = static_cast<std::size_t>(op.planned.most);
    }
    chosen.on_dropped = [this, self = witness(op)](std::uint64_t count) {
        const delivery now(*this, *self, std::to_string(count) + " dropped");
        if (count == 0 || self->planned.most == 0) {
            result().fail(self->name + ": told of " + std::to_string(count) + " dropped");
        }
    };
    chosen.on_registered = [this, self = witness(op)](const std::error_code& code) {
        const delivery now(*this, *self, "registered: " + told(code));
        const bool may_be_denied = self->planned.what == act::monitor && ::geteuid() != 0;
        if (code && !(may_be_denied && code == error::msg::permission_denied)) {
            result().fail(self->name + ": its registration ended with " + told(code));
        }
        self->registered += code ? 0 : 1;
    };
    return chosen;
}

// --- the other process -------------------------------------------------------------------------

void sequence::set_peer_mode(bool exclusive, bool eager) {
    world_.order_peer("mode", std::to_string(exclusive) + " " + std::to_string(eager));
}

void sequence::publish_all() {
    if (published_all_ == 0) {
        published_all_ = now();
    }
}

void sequence::order_peer(const step& s) {
    const std::string foreign =
        s.foreign < 0 ? "" : foreign_names.at(static_cast<std::size_t>(s.foreign));
    int number = 0;
    switch (s.what) {
    case act::peer_publish:
        number = world_.order_peer("publish", foreign);
        break;
    case act::peer_withdraw:
        number = world_.order_peer("withdraw", foreign);
        break;
    case act::peer_toggle:
        number = world_.order_peer("toggle", std::to_string(s.limit));
        break;
    case act::peer_event:
        for (int i = 0; i < s.limit; ++i) {
            number = world_.order_peer("event", event_ids.at(static_cast<std::size_t>(s.pattern)));
        }
        break;
    case act::peer_notify:
        number = world_.order_peer("notify", foreign);
        break;
    case act::peer_ask:
        number = world_.order_peer("ask", foreign);
        break;
    case act::peer_subscribe:
        number = world_.order_peer("subscribe", own_name(s));
        break;
    default:
        number = world_.order_peer("unsubscribe", own_name(s));
        ++seen_.unsubscriptions;
        break;
    }
    journal::note(name_of(s) + ", order " + std::to_string(number));
}

// --- handlers ----------------------------------------------------------------------------------

void sequence::hear_event(model_operation& op, const std::string& id, const bus::table& data) {
    const long number = id.rfind("model.event.", 0) == 0 ? number_in(data) : 0;
    delivery now(*this, op, "event " + id + " " + std::to_string(number));
    if (!matches(event_patterns.at(static_cast<std::size_t>(op.planned.pattern)), id)) {
        result().fail(op.name + ": delivers the event " + id);
    }
    if (id == own_event_id) {
        result().fail(op.name + ": delivers an event of its own process");
    }
    if (number != 0) {
        check_event(op, number);
    }
    now.act(*this);
}

void sequence::check_event(model_operation& op, long number) {
    if (number <= forbidden_ && --in_flight_ < 0) {
        result().fail(op.name + ": event " + std::to_string(number) +
                      ", sent before a cancel() began, is delivered after it has returned");
    }
    const std::lock_guard<std::mutex> guard(op.lock);
    if (number <= op.event) {
        result().fail(op.name + ": event " + std::to_string(number) + " after event " +
                      std::to_string(op.event));
    }
    op.event = number;
}

/// cancel() has returned, and had begun when these had been sent.
void sequence::forbid_events(long sent) {
    if (!world_.loop().on_its_thread()) {
        ++in_flight_;
    }
    long before = forbidden_;
    while (before < sent && !forbidden_.compare_exchange_weak(before, sent)) {}
}

void sequence::tell_presence(model_operation& op, bus::presence what, const std::string& path,
                             std::uint32_t id) {
    const bool appeared = what == bus::presence::appeared;
    const std::string object = path + " " + std::to_string(id);
    delivery now(*this, op, object + (appeared ? " appeared" : " is gone"));
    if (!matches(object_patterns.at(static_cast<std::size_t>(op.planned.pattern)), path)) {
        result().fail(op.name + ": told of " + path);
    }
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        const auto known = op.there.find(id);
        if (appeared && !op.there.emplace(id, path).second) {
            result().fail(op.name + ": " + object + " appeared, and was there");
        } else if (!appeared && (known == op.there.end() || known->second != path)) {
            result().fail(op.name + ": " + object + " is gone, and was not there");
        } else if (!appeared) {
            op.there.erase(known);
        }
    }
    now.act(*this);
}

void sequence::tell_subscription(model_operation& op, bus::subscription changed,
                                 const std::error_code& why) {
    static constexpr std::array<const char*, 3> names{"subscribed", "lost", "refused"};
    delivery now(*this, op,
                 std::string(names.at(static_cast<std::size_t>(changed))) + ": " + told(why));
    const bool own = op.planned.name >= 0;
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        const bool possible =
            changed == bus::subscription::subscribed ? !op.subscribed && !own && !why
            : changed == bus::subscription::lost
                ? op.subscribed &&
                      (why == error::msg::not_found || why == error::msg::connection_failed)
                : !op.subscribed && own && why == error::msg::invalid_argument;
        if (!possible) {
            result().fail(op.name + ": " + names.at(static_cast<std::size_t>(changed)) + ", " +
                          told(why) + ", when " + (op.subscribed ? "" : "not ") + "subscribed");
        }
        op.subscribed = changed == bus::subscription::subscribed;
    }
    now.act(*this);
}

std::optional<std::error_code> sequence::take_notification(model_operation& op,
                                                           const context& ctx) {
    delivery now(*this, op, "notification " + std::to_string(number_in(ctx->args)));
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        if (!op.subscribed) {
            result().fail(op.name + ": notified when not subscribed");
        }
    }
    if (!op.planned.answers && !ctx->expired()) {
        result().fail(op.name + ": could answer what has been answered");
    }
    ++op.calls;
    now.act(*this);
    switch (op.planned.method) {
    case 0:
        return error::msg::success;
    case 1: {
        const std::lock_guard<std::mutex> guard(lock_);
        kept_.emplace_back(ctx, &op);
        return std::nullopt;
    }
    case 2:
        return error::msg::permission_denied;
    case 3:
        return std::nullopt;
    default:
        answer_with(op, ctx);
        return error::msg::permission_denied; // too late to count
    }
}

void sequence::tell_subscribers(model_operation& op, bool any) {
    delivery now(*this, op, any ? "it has subscribers" : "it has none");
    {
        const std::lock_guard<std::mutex> guard(op.lock);
        if (any == op.has_subscribers) {
            result().fail(op.name + ": told the same once more");
        }
        op.has_subscribers = any;
    }
    now.act(*this);
}

void sequence::check_found(model_operation& op, const std::vector<bus::object_info>& found) {
    const std::string pattern = object_patterns.at(static_cast<std::size_t>(op.planned.pattern));
    bool remote = false;
    const std::lock_guard<std::mutex> guard(op.lock);
    for (const auto& object : found) {
        if (!matches(pattern, object.path) || object.id == 0) {
            result().fail(op.name + ": has found " + object.path);
        }
        remote = remote || (object.path == remote_path && object.methods.size() == 5);
        op.there.emplace(object.id, object.path);
    }
    if (op.there.size() != found.size()) {
        result().fail(op.name + ": has found an object twice");
    }
    if (!remote && matches(pattern, remote_path) && !plan_.restarts_daemon) {
        result().fail(op.name + ": has not found " + remote_path);
    }
}

/// The other process is the only one that subscribes, once.
void sequence::check_answers(const model_operation& op,
                             const std::vector<bus::notify_answer>& answers) {
    const bool replies = op.planned.method < 2;
    bool well = answers.size() <= 1;
    for (const auto& answer : answers) {
        well = well && replies && !answer.status && answer.replies.size() == 1;
        for (const auto& reply : answer.replies) {
            const auto& fields = reply.get<bus::table>();
            const auto field = fields.find("token");
            well = well && field != fields.end() && field->second.get<int>() == op.planned.id;
        }
    }
    if (!well) {
        result().fail(op.name + ": got other answers than the other process's");
    }
}

} // namespace tarn::test
