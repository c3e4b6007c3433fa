/// libubus's messages on their way in: bytes are read in large pieces and taken apart here.
#include "io.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/socket.h>
#include <unistd.h>
#include <utility>

// Received bytes in the order of the stream: [begin, end) are not taken yet.
struct ubus_input {
    char* bytes;
    std::size_t capacity;
    std::size_t begin;
    std::size_t end;
    bool broken;
};

namespace bus {
namespace {

constexpr std::size_t input_size = 16 * 1024;
// Memory beyond this is not kept for the next message.
constexpr std::size_t kept_size = 64 * 1024;

ubus_input* get_input(ubus_context& ctx) {
    if (ctx.input == nullptr) {
        ctx.input = static_cast<ubus_input*>(std::calloc(1, sizeof(ubus_input)));
    }
    return ctx.input;
}

// Makes room for `wanted` bytes from `begin` on.
bool reserve(ubus_input& input, std::size_t wanted) {
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

} // namespace

read_result read_input(ubus_context& ctx, bool one_message, bool& filled) {
    ubus_input* input = get_input(ctx);
    if (input == nullptr || input->broken) {
        return read_result::ended;
    }
    std::size_t wanted = message_head_size;
    const std::size_t used = input->end - input->begin;
    if (used >= message_head_size) {
        message_head head;
        if (!read_head(input->bytes + input->begin, head)) {
            break_connection(ctx);
            return read_result::ended;
        }
        wanted = head.size;
    }
    if (!reserve(*input, wanted)) {
        break_connection(ctx);
        return read_result::ended;
    }
    const std::size_t room = one_message ? wanted - used : input->capacity - input->end;
    ssize_t count = 0;
    do {
        count = ::read(ctx.sock.fd, input->bytes + input->end, room);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) {
        return read_result::nothing;
    }
    if (count <= 0) {
        return read_result::ended;
    }
    input->end += static_cast<std::size_t>(count);
    filled = static_cast<std::size_t>(count) == room;
    return read_result::data;
}

void free_input(ubus_context& ctx) {
    if (ctx.input != nullptr) {
        std::free(ctx.input->bytes);
        std::free(std::exchange(ctx.input, nullptr));
    }
    std::free(std::exchange(ctx.msgbuf.data, nullptr));
    ctx.msgbuf_size = 0;
}

incoming::incoming(ubus_context& ctx)
    : ctx_(ctx) {
    ubus_input* input = ctx.input;
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
    memory_ = std::exchange(ctx.msgbuf.data, nullptr);
    size_ = std::exchange(ctx.msgbuf_size, 0);
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
    if (memory_ != nullptr && ctx_.msgbuf.data == nullptr && size_ <= kept_size) {
        ctx_.msgbuf.data = memory_;
        ctx_.msgbuf_size = size_;
    } else {
        std::free(memory_);
    }
}

void break_connection(ubus_context& ctx) {
    if (ctx.input != nullptr) {
        ctx.input->broken = true;
    }
    ctx.sock.eof = true;
    // So that the loop reports the socket even if the daemon leaves it open.
    ::shutdown(ctx.sock.fd, SHUT_RDWR);
}

} // namespace bus
