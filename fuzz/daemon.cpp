/// Fuzz target: what up to four clients send, in pieces of any size, through the daemon's broker.
/// What it sends to each of them must be whole, well formed messages.
///
/// The input is a list of pieces: a byte that says whose it is and what is done with it, the
/// piece's length, the piece. A piece may also be the numbers of a well formed request. The first
/// client is root.
#include "input.h"

#include "busd/broker.h"
#include "busd/client.h"

#include <array>
#include <memory>
#include <sys/random.h>

namespace {

// The ids that a real broker draws at random count up here, so that an input can name them.
std::uint32_t last_id;

class fuzzed_client : public busd::client {
public:
    explicit fuzzed_client(bool is_root)
        : client("root", "root", is_root) {}

    /// Takes what waits for it, and checks it.
    void read() {
        while (!out().empty()) {
            bus::message_head head;
            fuzz::require(out().size() >= bus::message_head_size &&
                              bus::read_head(out().data(), head) && head.size <= out().size(),
                          "whole messages go out");
            const auto* const blob =
                reinterpret_cast<const blob_attr*>(out().data() + sizeof(ubus_msghdr));
            if (head.type == UBUS_MSG_MONITOR) {
                check_copy(blob);
            } else {
                bus::attributes found;
                fuzz::require(bus::parse_attributes(blob, found),
                              "messages that go out are well formed");
            }
            out().consume(head.size);
        }
    }

    void on_full() override { read(); }

private:
    // A copy for the monitor has each of its attributes once.
    static void check_copy(const blob_attr* blob) {
        unsigned found = 0;
        blob_attr* each;
        std::size_t left;
        blob_for_each_attr(each, blob, left) {
            const unsigned id = blob_id(each);
            fuzz::require(id < UBUS_MONITOR_MAX && (found >> id & 1U) == 0,
                          "a copy has no other attributes");
            found |= 1U << id;
            const std::size_t size = id == UBUS_MONITOR_SEND ? 1 : 4;
            fuzz::require(id == UBUS_MONITOR_DATA || blob_len(each) == size,
                          "the numbers of a copy are numbers");
        }
        fuzz::require(found == (1U << UBUS_MONITOR_MAX) - 1, "a copy has all of its attributes");
    }
};

/// A message of the client library's own making, which a fuzzer would hardly find: the ids that it
/// names come from the input, and so may or may not be there.
class request {
public:
    explicit request(fuzz::input& from) {
        blob_buf_init(&buffer_, 0);
        build(from);
    }
    ~request() { blob_buf_free(&buffer_); }
    request(const request&) = delete;
    request& operator=(const request&) = delete;

    std::vector<std::uint8_t> bytes(std::uint8_t seq) const {
        const auto* const blob = reinterpret_cast<const std::uint8_t*>(buffer_.head);
        std::vector<std::uint8_t> all(sizeof(ubus_msghdr));
        bus::write_header(all.data(), type_, seq, peer_);
        all.insert(all.end(), blob, blob + blob_raw_len(buffer_.head));
        return all;
    }

private:
    static std::uint32_t id(fuzz::input& from) {
        return static_cast<std::uint32_t>(1024 + from.byte());
    }
    void put_id(int attribute, std::uint32_t id) { blob_put_u32(&buffer_, attribute, id); }
    void put_text(int attribute, const std::string& text) {
        blob_put_string(&buffer_, attribute, text.c_str());
    }

    void call(std::uint32_t object, const char* method) {
        type_ = UBUS_MSG_INVOKE;
        peer_ = object;
        put_id(UBUS_ATTR_OBJID, object);
        put_text(UBUS_ATTR_METHOD, method);
    }

    void build(fuzz::input& from) {
        void* data = nullptr;
        switch (from.byte() % 8U) {
        case 0:
            type_ = UBUS_MSG_ADD_OBJECT;
            if (const unsigned length = from.byte() % 8U; length > 0) {
                put_text(UBUS_ATTR_OBJPATH, from.text(length));
                blob_nest_end(&buffer_, blob_nest_start(&buffer_, UBUS_ATTR_SIGNATURE));
            }
            return;
        case 1:
            type_ = UBUS_MSG_SUBSCRIBE;
            break;
        case 2:
            type_ = UBUS_MSG_UNSUBSCRIBE;
            break;
        case 3:
            type_ = UBUS_MSG_NOTIFY;
            peer_ = id(from);
            put_id(UBUS_ATTR_OBJID, peer_);
            put_text(UBUS_ATTR_METHOD, "up");
            if (const unsigned wanted = from.byte() % 4U; wanted != 0) {
                blob_put_u8(&buffer_, UBUS_ATTR_NO_REPLY, static_cast<std::uint8_t>(wanted - 1));
            }
            blob_nest_end(&buffer_, blob_nest_start(&buffer_, UBUS_ATTR_DATA));
            return;
        case 4:
            call(UBUS_SYSTEM_OBJECT_EVENT, "register");
            data = blob_nest_start(&buffer_, UBUS_ATTR_DATA);
            blobmsg_add_u32(&buffer_, "object", id(from));
            blobmsg_add_string(&buffer_, "pattern", from.text(from.byte() % 8U).c_str());
            blob_nest_end(&buffer_, data);
            return;
        case 5: {
            call(UBUS_SYSTEM_OBJECT_EVENT, "send");
            data = blob_nest_start(&buffer_, UBUS_ATTR_DATA);
            blobmsg_add_string(&buffer_, "id", from.text(from.byte() % 8U).c_str());
            void* const table = blobmsg_open_table(&buffer_, "data");
            blobmsg_add_u32(&buffer_, "n", 1);
            blobmsg_close_table(&buffer_, table);
            blob_nest_end(&buffer_, data);
            return;
        }
        case 6:
            call(UBUS_SYSTEM_OBJECT_MONITOR, from.byte() % 2U == 0 ? "add" : "remove");
            return;
        default:
            type_ = UBUS_MSG_REMOVE_OBJECT;
            break;
        }
        put_id(UBUS_ATTR_OBJID, id(from));
        put_id(UBUS_ATTR_TARGET, id(from));
    }

    blob_buf buffer_{};
    std::uint8_t type_ = 0;
    std::uint32_t peer_ = 0;
};

class bus_under_test {
public:
    void handle(fuzz::input rest) {
        while (!rest.empty()) {
            const std::uint8_t what = rest.byte();
            auto& sender = clients_[what % clients_.size()];
            if ((what & 0x80U) != 0) {
                leave(sender);
                continue;
            }
            if (sender == nullptr) {
                sender = std::make_unique<fuzzed_client>(&sender == clients_.data());
                broker_.attach(*sender);
            }
            if ((what & 0x40U) != 0) {
                sender->read();
                broker_.resume(*sender);
            }
            if ((what & 0x10U) != 0) {
                const std::uint8_t seq = rest.byte();
                const std::vector<std::uint8_t> bytes = request(rest).bytes(seq);
                if (!send(*sender, bytes.data(), bytes.size())) {
                    leave(sender);
                }
                continue;
            }
            const fuzz::input piece = rest.piece(rest.byte());
            // What has no message around it gets one, more often than a fuzzer would find it.
            const bool alive = (what & 0x20U) != 0 ? send_message(*sender, piece)
                                                   : send(*sender, piece.data(), piece.size());
            if (!alive) {
                leave(sender);
            }
        }
        for (auto& client : clients_) {
            leave(client);
        }
    }

private:
    using client_pointer = std::unique_ptr<fuzzed_client>;

    bool send(fuzzed_client& sender, const std::uint8_t* data, std::size_t size) {
        // In memory of its own, for the sanitizer.
        const std::vector<std::uint8_t> bytes(data, data + size);
        return broker_.receive(sender, bytes.data(), bytes.size());
    }

    bool send_message(fuzzed_client& sender, fuzz::input piece) {
        const std::uint8_t type = piece.byte();
        const auto seq = static_cast<std::uint16_t>(piece.byte());
        const auto peer = static_cast<std::uint32_t>(1024 + piece.byte());
        std::vector<std::uint8_t> bytes(bus::message_head_size + piece.size());
        bus::write_header(bytes.data(), type, seq, peer);
        const std::uint32_t length =
            htonl(static_cast<std::uint32_t>(sizeof(blob_attr) + piece.size()));
        std::memcpy(bytes.data() + sizeof(ubus_msghdr), &length, sizeof length);
        std::copy_n(piece.data(), piece.size(), bytes.begin() + bus::message_head_size);
        return send(sender, bytes.data(), bytes.size());
    }

    void leave(client_pointer& leaving) {
        if (leaving != nullptr) {
            // All that it has asked for comes, if it reads.
            for (int pieces = 0; leaving->has_more(); ++pieces) {
                fuzz::require(pieces < 10000, "an answer ends");
                leaving->read();
                broker_.resume(*leaving);
            }
            leaving->read();
            broker_.detach(*leaving);
            leaving.reset();
        }
    }

    busd::broker broker_;
    std::array<client_pointer, 4> clients_;
};

} // namespace

extern "C" ssize_t getrandom(void* buffer, std::size_t size, unsigned int) {
    ++last_id;
    std::memset(buffer, 0, size);
    std::memcpy(buffer, &last_id, std::min(size, sizeof last_id));
    return static_cast<ssize_t>(size);
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    last_id = 1024;
    bus_under_test().handle(fuzz::input(data, size));
    return 0;
}
