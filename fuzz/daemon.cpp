/// Fuzz target: what up to four clients send, in pieces of any size, through the daemon's broker.
/// What it sends to each of them must be whole, well formed messages.
///
/// The input is a list of pieces: a byte that says whose it is and what is done with it, the
/// piece's length, the piece.
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
    fuzzed_client()
        : client("root", "root") {}

    /// Takes what waits for it, and checks it.
    void read() {
        while (!out().empty()) {
            bus::message_head head;
            fuzz::require(out().size() >= bus::message_head_size &&
                              bus::read_head(out().data(), head) && head.size <= out().size(),
                          "whole messages go out");
            bus::attributes found;
            fuzz::require(
                bus::parse_attributes(
                    reinterpret_cast<const blob_attr*>(out().data() + sizeof(ubus_msghdr)), found),
                "messages that go out are well formed");
            out().consume(head.size);
        }
    }

    void on_full() override { read(); }
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
                sender = std::make_unique<fuzzed_client>();
                broker_.attach(*sender);
            }
            if ((what & 0x40U) != 0) {
                sender->read();
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
