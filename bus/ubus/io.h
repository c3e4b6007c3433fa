/// libubus's way to the socket: messages out, messages in. Internal to libubus.
#pragma once

#include <cstddef>
#include <cstdint>

#include "headers.h"
#include "message.h"

namespace bus {

/// A message that is being built in the one send buffer of the process. At most one may exist at
/// a time, so nothing that runs a callback may happen while it does.
class outgoing {
public:
    outgoing();
    outgoing(const outgoing&) = delete;
    outgoing& operator=(const outgoing&) = delete;

    outgoing& put_u8(int id, std::uint8_t value);
    outgoing& put_u32(int id, std::uint32_t value);
    outgoing& put_text(int id, const char* text);
    /// Copies what `message`, a blob of the caller's, holds; nothing if it is null.
    outgoing& put_nested(int id, const blob_attr* message);
    /// The SIGNATURE attribute of an object with these methods.
    outgoing& put_signature(const ubus_method* methods, int count);

    /// True if memory ran out or the message is above what a blob can hold.
    bool failed() const { return failed_; }
    /// True if the daemon would disconnect a client that sends this.
    bool too_long() const;
    /// Writes the message, waiting without a limit while the socket is full. A failure sets
    /// `ctx.sock.eof`. Raises SIGPIPE if the daemon has gone. Not for a message that has failed().
    bool send(ubus_context& ctx, std::uint8_t type, std::uint16_t seq, std::uint32_t peer) const;

private:
    bool failed_;
};

/// Takes memory for the send buffer, enough for any status, so that none is lost for want of it.
/// False if there is not even that.
bool reserve_send_buffer();

/// Gives the send buffer's memory back.
void free_send_buffer();

enum class read_result { data, nothing, ended };

/// How much is read at most: what belongs to the next message, or all that there is room for.
enum class reading { message, all };

/// Reads once from the socket, without waiting, and keeps the bytes. Sets `filled` if there may be
/// more to read.
read_result read_input(ubus_context& ctx, reading amount, bool& filled);

/// Waits for the daemon's first message and reads it: its head in one piece, and what its blob
/// holds in one piece. False if either comes in more. Reads nothing beyond it: what follows must
/// wake the loop.
bool read_hello(ubus_context& ctx, message_head& hello);

/// Takes memory for what is received. False if there is none.
bool open_input(ubus_context& ctx);

void free_input(ubus_context& ctx);

/// One received message, in memory of its own: a callback that gets it may receive others inside.
class incoming {
public:
    /// Takes the next whole message out of what has been read; check with operator bool. Bytes that
    /// are no message end the connection as if the daemon had closed it.
    explicit incoming(ubus_context& ctx);
    ~incoming();
    incoming(const incoming&) = delete;
    incoming& operator=(const incoming&) = delete;

    explicit operator bool() const { return found_; }
    const message_head& head() const { return head_; }
    blob_attr* blob() const { return memory_; }

private:
    ubus_context& ctx_;
    message_head head_{};
    blob_attr* memory_ = nullptr;
    std::uint32_t size_ = 0;
    bool found_ = false;
};

/// Makes the connection look closed by the daemon from here on.
void break_connection(ubus_context& ctx);

/// Whether the end of the connection has been reported, and notes that it has.
bool is_lost(const ubus_context& ctx);
void set_lost(ubus_context& ctx);

} // namespace bus
