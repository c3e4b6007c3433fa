/// libubus's messages on their way in: bytes are read in large pieces and taken apart here.
#include "io.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

namespace bus {
namespace {

// What belongs to one context beyond what its public record has room for. It hangs on
// `msgbuf.data`, which is the library's own.
struct connection_input {
    // Received bytes in the order of the stream: [begin, end) are not taken yet.
    char* bytes;
    std::size_t capacity;
    std::size_t begin;
    std::size_t end;
    // The stream has no meaning any more.
    bool broken;
    // connection_lost has been called.
    bool lost;
    // Memory for the next received message.
    blob_attr* spare;
    std::uint32_t spare_size;
};

connection_input* input_of(const ubus_context& ctx) {
    return reinterpret_cast<connection_input*>(ctx.msgbuf.data);
}

constexpr std::size_t input_size = 16 * 1024;
// Memory beyond this is not kept for the next message.
constexpr std::size_t kept_size = 64 * 1024;

// Makes room for `wanted` bytes from `begin` on.
bool reserve(connection_input& input, std::size_t wanted) {
    const std::size_t used = input.end - input.begin;
    if (used == 0 && input.capacity > kept_size && wanted <= input_size) {
        std::free(std::exchange(input.bytes, nullptr));
        input.capacity = input.begin = input.end = 0;
    }
    if (input.begin > 0 && (used == 0 || input.begin + wanted > input.capacity)) {
        std::memmove(input.bytes, input.bytes + input.begin, used);
        input.begin = 0;
        input.end = used;
    }
    if (wanted > input.capacity) {
        const std::size_t size = std::max(wanted, input_size);
        auto* bytes = static_cast<char*>(std::realloc(input.bytes, size));
        if (bytes == nullptr) {
            return false;
        }
        input.bytes = bytes;
        input.capacity = size;
    }
    return true;
}

// Waits for the first byte and takes what one read() gives.
bool read_piece(int fd, void* bytes, std::size_t size) {
    for (;;) {
        const ssize_t count = ::read(fd, bytes, size);
        if (count < 0 && errno == EAGAIN) {
            pollfd readable{fd, POLLIN, 0};
            ::poll(&readable, 1, -1);
        } else if (count >= 0 || errno != EINTR) {
            return count == static_cast<ssize_t>(size);
        }
    }
}

} // namespace

bool open_input(ubus_context& ctx) {
    if (ctx.msgbuf.data == nullptr) {
        auto* const made = static_cast<connection_input*>(std::calloc(1, sizeof(connection_input)));
        ctx.msgbuf.data = reinterpret_cast<blob_attr*>(made);
    }
    return ctx.msgbuf.data != nullptr;
}

read_result read_input(ubus_context& ctx, reading amount, bool& filled) {
    if (!open_input(ctx) || input_of(ctx)->broken) {
        return read_result::ended;
    }
    connection_input& input = *input_of(ctx);
    std::size_t wanted = message_head_size;
    if (input.end - input.begin >= message_head_size) {
        message_head head;
        if (!read_head(input.bytes + input.begin, head)) {
            break_connection(ctx);
            return read_result::ended;
        }
        wanted = head.size;
    }
    if (!reserve(input, wanted)) {
        break_connection(ctx);
        return read_result::ended;
    }
    const std::size_t room =
        amount == reading::all ? input.capacity - input.end : wanted - (input.end - input.begin);
    ssize_t count = 0;
    do {
        count = ::read(ctx.sock.fd, input.bytes + input.end, room);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) {
        return read_result::nothing;
    }
    if (count <= 0) {
        return read_result::ended;
    }
    input.end += static_cast<std::size_t>(count);
    filled = static_cast<std::size_t>(count) == room;
    return read_result::data;
}

bool read_hello(ubus_context& ctx, message_head& hello) {
    char head[message_head_size];
    if (!read_piece(ctx.sock.fd, head, sizeof head) || !read_head(head, hello)) {
        return false;
    }
    const std::size_t rest = hello.size - sizeof head;
    if (rest == 0) {
        return true;
    }
    // What it holds means nothing.
    void* const memory = std::malloc(rest);
    const bool read = memory != nullptr && read_piece(ctx.sock.fd, memory, rest);
    std::free(memory);
    return read;
}

void free_input(ubus_context& ctx) {
    if (connection_input* const input = input_of(ctx)) {
        std::free(input->bytes);
        std::free(input->spare);
        std::free(input);
        ctx.msgbuf.data = nullptr;
    }
}

incoming::incoming(ubus_context& ctx)
    : ctx_(ctx) {
    connection_input* const input = input_of(ctx);
    if (input == nullptr || input->broken || input->end - input->begin < message_head_size) {
        return;
    }
    const char* start = input->bytes + input->begin;
    if (!read_head(start, head_)) {
        break_connection(ctx);
        return;
    }
    if (input->end - input->begin < head_.size) {
        return;
    }
    memory_ = std::exchange(input->spare, nullptr);
    size_ = std::exchange(input->spare_size, 0);
    const auto length = static_cast<std::uint32_t>(head_.size - sizeof(ubus_msghdr));
    if (length > size_) {
        std::free(memory_);
        size_ = std::max(length, std::uint32_t{512});
        memory_ = static_cast<blob_attr*>(std::malloc(size_));
        if (memory_ == nullptr) {
            break_connection(ctx);
            return;
        }
    }
    std::memcpy(static_cast<void*>(memory_), start + sizeof(ubus_msghdr), length);
    std::memcpy(&ctx.msgbuf.hdr, start, sizeof ctx.msgbuf.hdr);
    input->begin += head_.size;
    found_ = true;
}

incoming::~incoming() {
    connection_input* const input = input_of(ctx_);
    if (memory_ != nullptr && input != nullptr && input->spare == nullptr && size_ <= kept_size) {
        input->spare = memory_;
        input->spare_size = size_;
    } else {
        std::free(memory_);
    }
}

void break_connection(ubus_context& ctx) {
    if (open_input(ctx)) {
        input_of(ctx)->broken = true;
    }
    ctx.sock.eof = true;
    // So that the loop reports the socket even if the daemon leaves it open.
    ::shutdown(ctx.sock.fd, SHUT_RDWR);
}

bool is_lost(const ubus_context& ctx) {
    return input_of(ctx) != nullptr && input_of(ctx)->lost;
}

void set_lost(ubus_context& ctx) {
    if (open_input(ctx)) {
        input_of(ctx)->lost = true;
    }
}

} // namespace bus
