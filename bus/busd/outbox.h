/// The bytes that wait to be read by one client of the daemon, and the builder that writes a
/// message straight into them.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ubus/message.h"

namespace busd {

/// A queue of whole messages, stored as the bytes that go to the socket.
class outbox {
public:
    /// A message is refused while more than this would be waiting with it; an empty queue takes
    /// any message, so that the largest one gets through.
    static constexpr std::size_t limit = bus::longest_blob;

    const std::uint8_t* data() const { return bytes_.data() + head_; }
    std::size_t size() const { return end_ - head_; }
    bool empty() const { return head_ == end_; }

    /// The reader has taken the first `count` bytes. May be called while a message is being
    /// built; what it has written so far stays.
    void consume(std::size_t count) { head_ += count; }

private:
    friend class message;

    void tidy();

    std::vector<std::uint8_t> bytes_;
    // [head_, end_) are whole messages, the first of which may be half read; what follows end_
    // belongs to a message that is being built.
    std::size_t head_ = 0;
    std::size_t end_ = 0;
};

/// One message that is being built at the end of an outbox; it is gone again unless commit()
/// succeeds. Only one at a time may exist per outbox.
class message {
public:
    message(outbox& out, std::uint8_t type, std::uint16_t seq, std::uint32_t peer);
    ~message();
    message(const message&) = delete;
    message& operator=(const message&) = delete;

    message& put_u8(std::uint8_t id, std::uint8_t value);
    message& put_u32(std::uint8_t id, std::uint32_t value);
    /// Writes the text and the NUL that ends it on the wire.
    message& put_text(std::uint8_t id, const std::string& text);
    /// Copies a whole attribute, header word included; a null one is left out.
    message& put(const blob_attr* attribute);
    message& put_payload(std::uint8_t id, const void* payload, std::size_t size);
    /// Copies bytes that are attributes already; the gap behind the last may be missing.
    message& put_raw(const void* bytes, std::size_t size);

    /// True if the message has outgrown what the protocol allows.
    bool too_long() const;
    /// True if the outbox takes the message as it is filled now, and `more` bytes behind it.
    bool fits(std::size_t more = 0) const;
    /// Makes the message part of the outbox.
    void commit();

    /// Takes the whole message out again, header included, so that another one can be put into the
    /// outbox before it.
    std::vector<std::uint8_t> lift();
    /// Puts what lift() has returned to where the outbox ends now.
    void put_back(const std::vector<std::uint8_t>& bytes);

private:
    std::size_t blob_size() const;
    void store_size();

    outbox& out_;
    bool done_ = false;
};

} // namespace busd
