/// libubus's messages on their way out.
#include "io.h"

#include <cerrno>
#include <poll.h>
#include <sys/uio.h>

namespace bus {
namespace {

blob_buf send_buffer;

// The rest of an iovec after the first `count` bytes have been written.
void advance(iovec*& parts, int& left, std::size_t count) {
    while (left > 0 && count >= parts->iov_len) {
        count -= parts->iov_len;
        ++parts;
        --left;
    }
    if (left > 0) {
        parts->iov_base = static_cast<char*>(parts->iov_base) + count;
        parts->iov_len -= count;
    }
}

bool write_all(int fd, iovec* parts, int left) {
    while (left > 0) {
        const ssize_t count = ::writev(fd, parts, left);
        if (count >= 0) {
            advance(parts, left, static_cast<std::size_t>(count));
        } else if (errno == EAGAIN) {
            pollfd writable{fd, POLLOUT, 0};
            ::poll(&writable, 1, -1);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

} // namespace

outgoing::outgoing()
    : failed_(blob_buf_init(&send_buffer, 0) != 0) {}

outgoing& outgoing::put_u8(int id, std::uint8_t value) {
    failed_ = failed_ || blob_put_u8(&send_buffer, id, value) == nullptr;
    return *this;
}

outgoing& outgoing::put_u32(int id, std::uint32_t value) {
    failed_ = failed_ || blob_put_u32(&send_buffer, id, value) == nullptr;
    return *this;
}

outgoing& outgoing::put_text(int id, const char* text) {
    failed_ = failed_ || blob_put_string(&send_buffer, id, text) == nullptr;
    return *this;
}

outgoing& outgoing::put_nested(int id, const blob_attr* message) {
    const auto size = static_cast<unsigned>(message == nullptr ? 0 : blob_len(message));
    failed_ = failed_ || blob_put(&send_buffer, id, message == nullptr ? "" : blob_data(message),
                                  size) == nullptr;
    return *this;
}

outgoing& outgoing::put_signature(const ubus_method* methods, int count) {
    if (failed_) {
        return *this;
    }
    void* const signature = blob_nest_start(&send_buffer, UBUS_ATTR_SIGNATURE);
    for (int i = 0; i < count && !failed_; ++i) {
        void* const method = blobmsg_open_table(&send_buffer, methods[i].name);
        failed_ = method == nullptr;
        for (int j = 0; j < methods[i].n_policy && !failed_; ++j) {
            const blobmsg_policy& argument = methods[i].policy[j];
            failed_ = blobmsg_add_u32(&send_buffer, argument.name,
                                      static_cast<std::uint32_t>(argument.type)) != 0;
        }
        if (!failed_) {
            blobmsg_close_table(&send_buffer, method);
        }
    }
    if (signature == nullptr) {
        failed_ = true;
    } else if (!failed_) {
        blob_nest_end(&send_buffer, signature);
    }
    return *this;
}

bool outgoing::too_long() const {
    return blob_pad_len(send_buffer.head) > longest_blob;
}

bool outgoing::send(ubus_context& ctx, std::uint8_t type, std::uint16_t seq,
                    std::uint32_t peer) const {
    if (failed_) {
        return false;
    }
    ubus_msghdr header;
    write_header(&header, type, seq, peer);
    iovec parts[2] = {{&header, sizeof header}, {send_buffer.head, blob_raw_len(send_buffer.head)}};
    if (write_all(ctx.sock.fd, parts, 2)) {
        return true;
    }
    // The only report of the failure: the connection ends when the loop next reports the socket,
    // which a daemon that has only stopped reading may put off for ever.
    ctx.sock.eof = true;
    return false;
}

bool reserve_send_buffer() {
    // The smallest buffer that libubox makes holds any status.
    return blob_buf_init(&send_buffer, 0) == 0;
}

void free_send_buffer() {
    blob_buf_free(&send_buffer);
}

} // namespace bus
