/// A bus for tests of the client that misbehaves on command.
#include "support/scripted_bus.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <future>
#include <memory>
#include <poll.h>
#include <stdexcept>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace tarn::test {
namespace {

/// Generous: reached only when a test fails.
constexpr std::chrono::seconds limit{30};

constexpr std::size_t message_head = 12;
constexpr std::size_t length_at = 8;
constexpr std::uint32_t length_mask = 0xffffff;

constexpr std::uint32_t status_invalid_argument = 2;
constexpr std::uint32_t status_not_found = 4;
constexpr std::uint32_t type_id = 0x2001;
constexpr std::uint32_t event_object = 1;

constexpr std::uint8_t string = 3;
constexpr std::uint8_t int32 = 5;

wire::bytes pong() {
    return wire::data_of(wire::field(string, "text", {'p', 'o', 'n', 'g', 0}));
}

std::string text_of(const wire::bytes& attribute) {
    return attribute.empty() ? std::string() : std::string(attribute.begin(), attribute.end() - 1);
}

wire::bytes data_message(const wire::received& request, const wire::bytes& attributes) {
    return wire::message(wire::data, request.seq(), request.peer(), attributes);
}

} // namespace

wire::bytes scripted_bus::status_message(const wire::received& request, std::uint32_t status) {
    return wire::message(wire::status, request.seq(), request.peer(), wire::status_is(status));
}

wire::bytes scripted_bus::call_message(std::uint16_t seq, const wire::bytes& attributes) {
    return wire::message(wire::invoke, seq, caller_id, attributes);
}

wire::bytes scripted_bus::remote_event(const std::string& name, std::uint32_t object,
                                       const std::string& path) const {
    wire::bytes text(path.begin(), path.end());
    text.push_back(0);
    const auto byte = [object](unsigned shift) {
        return static_cast<std::uint8_t>(object >> shift);
    };
    const wire::bytes id{byte(24), byte(16), byte(8), byte(0)};
    return wire::message(
        wire::invoke, 0, 0,
        wire::objid(listeners_.at(name)) + wire::method(name) +
            wire::data_of(wire::field(int32, "id", id) + wire::field(string, "path", text)));
}

scripted_bus::scripted_bus()
    : wake_up_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (wake_up_ < 0) {
        throw std::runtime_error("eventfd");
    }
    thread_ = std::thread([this] { work(); });
}

scripted_bus::~scripted_bus() {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ending_ = true;
    }
    ::eventfd_write(wake_up_, 1);
    thread_.join();
    ::close(wake_up_);
}

void scripted_bus::on_next(wire::type type, reaction react, unsigned skipped) {
    run([&] {
        moment_ = type;
        skipped_ = skipped;
        react_ = std::move(react);
        const std::lock_guard<std::mutex> guard(lock_);
        reacted_ = false;
    });
}

void scripted_bus::then_on_next(wire::type type, reaction react) {
    moment_ = type;
    skipped_ = 0;
    react_ = std::move(react);
}

bool scripted_bus::wait_for_reaction() {
    std::unique_lock<std::mutex> guard(lock_);
    return changed_.wait_for(guard, limit, [this] { return reacted_; });
}

bool scripted_bus::wait_for_unread() {
    pollfd unread{-1, POLLIN, 0};
    run([&] { unread.fd = clients_.back().socket.fd(); });
    return ::poll(&unread, 1, static_cast<int>(std::chrono::milliseconds(limit).count())) == 1;
}

void scripted_bus::send_in_pieces(bool on) {
    run([&] { in_pieces_ = on; });
}

void scripted_bus::hang_up() {
    run([this] { clients_.clear(); });
}

std::uint16_t scripted_bus::call(const std::string& path, const std::string& method) {
    std::uint32_t object = 0;
    run([&] { object = objects_.at(path); });
    return call(object, method);
}

std::uint16_t scripted_bus::call(std::uint32_t object, const std::string& method) {
    std::uint16_t seq = 0;
    run([&] {
        if (clients_.empty()) {
            throw std::logic_error("nobody is connected");
        }
        seq = ++next_call_;
        transmit(clients_.back(),
                 call_message(seq, wire::objid(object) + wire::method(method) + wire::data_of({})),
                 in_pieces_);
    });
    return seq;
}

void scripted_bus::send(const std::function<wire::bytes()>& make) {
    run([&] { transmit(clients_.back(), make(), in_pieces_); });
}

int scripted_bus::wait_for_status(std::uint16_t seq) {
    const auto found = wait_for_completions(1, [seq](std::uint16_t other) { return other == seq; });
    return found.empty() ? -1 : found.front().second;
}

std::vector<scripted_bus::completion>
scripted_bus::wait_for_completions(std::size_t count,
                                   const std::function<bool(std::uint16_t)>& of) {
    const auto wanted = [&](const completion& each) {
        return of(each.first);
    };
    std::unique_lock<std::mutex> guard(lock_);
    const auto all_there = [&] {
        const auto have = std::count_if(completions_.begin(), completions_.end(), wanted);
        return static_cast<std::size_t>(have) >= count;
    };
    changed_.wait_for(guard, limit, all_there);
    std::vector<completion> taken;
    for (auto each = completions_.begin(); each != completions_.end() && taken.size() < count;) {
        if (wanted(*each)) {
            taken.push_back(*each);
            each = completions_.erase(each);
        } else {
            ++each;
        }
    }
    return taken;
}

void scripted_bus::run(const std::function<void()>& task) {
    // Shared, since set_value() may still be busy with it when the result has arrived here.
    const auto done = std::make_shared<std::promise<void>>();
    auto result = done->get_future();
    {
        const std::lock_guard<std::mutex> guard(lock_);
        tasks_.emplace_back([&task, done] {
            try {
                task();
                done->set_value();
            } catch (...) {
                done->set_exception(std::current_exception());
            }
        });
    }
    ::eventfd_write(wake_up_, 1);
    result.get();
}

void scripted_bus::run_tasks() {
    eventfd_t ignored = 0;
    ::eventfd_read(wake_up_, &ignored);
    std::unique_lock<std::mutex> guard(lock_);
    while (!tasks_.empty()) {
        const auto task = std::move(tasks_.front());
        tasks_.pop_front();
        guard.unlock();
        task();
        guard.lock();
    }
}

void scripted_bus::work() {
    for (;;) {
        std::vector<pollfd> watched{{wake_up_, POLLIN, 0}, {socket_.fd(), POLLIN, 0}};
        for (const connection& client : clients_) {
            // A negative descriptor is passed over.
            watched.push_back({client.reading ? client.socket.fd() : -1, POLLIN, 0});
        }
        if (::poll(watched.data(), watched.size(), -1) < 0) {
            continue;
        }
        auto events = watched.begin() + 2;
        for (auto client = clients_.begin(); client != clients_.end(); ++events) {
            const bool stays = events->revents == 0 || receive(*client);
            client = stays ? std::next(client) : clients_.erase(client);
        }
        if (watched[1].revents != 0) {
            clients_.push_back({socket_.accept(), {}});
            objects_.clear();
            listening_.clear();
            listeners_.clear();
            if (!deliver(clients_.back(), wire::hello, {},
                         wire::message(wire::hello, 0, ++next_id_, {}))) {
                clients_.pop_back();
            }
        }
        if (watched[0].revents != 0) {
            run_tasks();
            const std::lock_guard<std::mutex> guard(lock_);
            if (ending_) {
                return;
            }
        }
    }
}

bool scripted_bus::receive(connection& client) {
    wire::bytes piece(65536);
    const ssize_t count = ::recv(client.socket.fd(), piece.data(), piece.size(), MSG_DONTWAIT);
    if (count <= 0) {
        return count < 0 && errno == EAGAIN;
    }
    client.received.insert(client.received.end(), piece.begin(), piece.begin() + count);
    while (client.reading && client.received.size() >= message_head) {
        const wire::received head{client.received};
        const std::size_t size = length_at + (head.word(length_at) & length_mask);
        if (client.received.size() < size) {
            break;
        }
        const auto end = client.received.begin() + static_cast<std::ptrdiff_t>(size);
        const wire::received message{wire::bytes(client.received.begin(), end)};
        client.received.erase(client.received.begin(), end);
        if (!handle(client, message)) {
            return false;
        }
    }
    return true;
}

std::size_t scripted_bus::received(wire::type type) {
    const std::lock_guard<std::mutex> guard(lock_);
    return received_[type];
}

bool scripted_bus::handle(connection& client, const wire::received& message) {
    {
        const std::lock_guard<std::mutex> guard(lock_);
        ++received_[message.type()];
        if (message.type() == wire::status) {
            completions_.emplace_back(message.seq(), static_cast<int>(message.number(1)));
            changed_.notify_all();
        }
    }
    if (!client.answering) {
        return true;
    }
    return deliver(client, static_cast<wire::type>(message.type()), message,
                   healthy_answer(message));
}

bool scripted_bus::deliver(connection& client, wire::type moment, const wire::received& message,
                           const wire::bytes& healthy) {
    answer given{healthy};
    const bool failing = react_ && moment == moment_ && skipped_ == 0;
    if (!failing && moment == moment_ && skipped_ > 0) {
        --skipped_;
    }
    if (failing) {
        given = std::exchange(react_, nullptr)(healthy, message);
    }
    bool stays = given.then != afterwards::hang_up;
    if (given.then == afterwards::shut_reading) {
        // Beforehand, so that the client cannot answer the answer.
        ::shutdown(client.socket.fd(), SHUT_RD);
    }
    try {
        transmit(client, given.raw, in_pieces_ && moment != wire::hello);
    } catch (const std::runtime_error&) {
        stays = false; // the client has gone already
    }
    client.answering = client.answering && given.then != afterwards::stop_answering;
    client.reading =
        given.then != afterwards::stop_reading && given.then != afterwards::shut_reading;
    if (failing) {
        const std::lock_guard<std::mutex> guard(lock_);
        reacted_ = true;
        changed_.notify_all();
    }
    return stays;
}

void scripted_bus::transmit(const connection& client, const wire::bytes& raw, bool in_pieces) {
    if (!in_pieces) {
        client.socket.send(raw);
        return;
    }
    for (const std::uint8_t byte : raw) {
        client.socket.send(wire::bytes{byte});
    }
}

wire::bytes scripted_bus::healthy_answer(const wire::received& request) {
    switch (request.type()) {
    case wire::lookup: {
        const std::string path = text_of(request.attribute(2));
        const auto own = objects_.find(path);
        if (path != remote_path && own == objects_.end()) {
            return status_message(request, status_not_found);
        }
        const std::uint32_t id = path == remote_path ? remote_id : own->second;
        return data_message(request, wire::objpath(path) + wire::objid(id) +
                                         wire::objtype(type_id) + wire::one_method(remote_method)) +
               status_message(request, 0);
    }
    case wire::invoke:
        if (request.peer() == event_object) {
            const std::string asked = text_of(request.attribute(7));
            for (const char* event : {appeared, gone}) {
                if (asked.find(event) != std::string::npos) {
                    listeners_[event] = newest_object_;
                }
            }
            return status_message(request, 0);
        }
        if (request.peer() != remote_id) {
            return status_message(request, status_not_found);
        }
        return data_message(request, wire::objid(remote_id) + pong()) +
               wire::message(wire::status, request.seq(), request.peer(),
                             wire::status_is(0) + wire::objid(remote_id));
    case wire::add_object: {
        const std::string path = text_of(request.attribute(2));
        if (path.empty()) {
            listening_.insert(next_id_ + 1);
        } else if (!objects_.emplace(path, next_id_ + 1).second) {
            return status_message(request, status_invalid_argument);
        }
        newest_object_ = ++next_id_;
        // libubus has nowhere to put the type of an object without a signature.
        return data_message(request, wire::objid(next_id_) + (request.attribute(6).empty()
                                                                  ? wire::bytes()
                                                                  : wire::objtype(type_id))) +
               status_message(request, 0);
    }
    case wire::remove_object:
        for (auto object = objects_.begin(); object != objects_.end(); ++object) {
            if (object->second == request.number(3)) {
                objects_.erase(object);
                return data_message(request,
                                    wire::objid(request.number(3)) + wire::objtype(type_id)) +
                       status_message(request, 0);
            }
        }
        return status_message(request,
                              listening_.erase(request.number(3)) != 0 ? 0 : status_not_found);
    case wire::subscribe:
    case wire::unsubscribe:
        return status_message(request, 0);
    default:
        return {};
    }
}

} // namespace tarn::test
