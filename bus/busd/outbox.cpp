/// The bytes that wait to be read by one client of the daemon.
#include "outbox.h"

#include <cstring>
#include <endian.h>

namespace busd {
namespace {

// An outbox that has been emptied keeps this much for the next messages.
constexpr std::size_t kept_capacity = 64 * 1024;

void store_u32(std::uint8_t* at, std::uint32_t value) {
    value = htobe32(value);
    std::memcpy(at, &value, sizeof value);
}

} // namespace

void outbox::tidy() {
    if (head_ == end_) {
        bytes_.clear();
        head_ = end_ = 0;
        if (bytes_.capacity() > kept_capacity) {
            bytes_.shrink_to_fit();
        }
    } else if (head_ >= limit) {
        // Moving at most one limit's worth for every limit's worth read: linear in all.
        bytes_.erase(bytes_.begin(), bytes_.begin() + static_cast<std::ptrdiff_t>(head_));
        end_ -= head_;
        head_ = 0;
    }
}

message::message(outbox& out, std::uint8_t type, std::uint16_t seq, std::uint32_t peer)
    : out_(out) {
    out_.tidy();
    out_.bytes_.resize(out_.end_ + bus::message_head_size);
    bus::write_header(out_.bytes_.data() + out_.end_, type, seq, peer);
}

message::~message() {
    if (!done_) {
        out_.bytes_.resize(out_.end_);
    }
}

message& message::put_u8(std::uint8_t id, std::uint8_t value) {
    return put_payload(id, &value, sizeof value);
}

message& message::put_u32(std::uint8_t id, std::uint32_t value) {
    value = htobe32(value);
    return put_payload(id, &value, sizeof value);
}

message& message::put_text(std::uint8_t id, const std::string& text) {
    return put_payload(id, text.c_str(), text.size() + 1);
}

message& message::put(const blob_attr* attribute) {
    if (attribute == nullptr) {
        return *this;
    }
    return put_payload(static_cast<std::uint8_t>(blob_id(attribute)), blob_data(attribute),
                       blob_len(attribute));
}

message& message::put_payload(std::uint8_t id, const void* payload, std::size_t size) {
    auto& bytes = out_.bytes_;
    const std::size_t start = bytes.size();
    const std::size_t padded = (size + 3) & ~std::size_t{3};
    bytes.resize(start + sizeof(blob_attr) + padded);
    const auto length = static_cast<std::uint32_t>(sizeof(blob_attr) + size);
    store_u32(bytes.data() + start, (std::uint32_t{id} << 24) | length);
    if (size > 0) {
        std::memcpy(bytes.data() + start + sizeof(blob_attr), payload, size);
    }
    return *this;
}

message& message::put_raw(const void* bytes, std::size_t size) {
    const auto* const first = static_cast<const std::uint8_t*>(bytes);
    out_.bytes_.insert(out_.bytes_.end(), first, first + size);
    return *this;
}

std::size_t message::blob_size() const {
    return out_.bytes_.size() - out_.end_ - sizeof(ubus_msghdr);
}

bool message::too_long() const {
    return blob_size() > bus::longest_blob;
}

bool message::fits(std::size_t more) const {
    return (out_.empty() && more == 0) || out_.bytes_.size() - out_.head_ + more <= outbox::limit;
}

void message::commit() {
    store_size();
    out_.end_ = out_.bytes_.size();
    done_ = true;
}

std::vector<std::uint8_t> message::lift() {
    store_size();
    auto& bytes = out_.bytes_;
    const auto start = bytes.begin() + static_cast<std::ptrdiff_t>(out_.end_);
    std::vector<std::uint8_t> lifted(start, bytes.end());
    bytes.resize(out_.end_);
    return lifted;
}

void message::put_back(const std::vector<std::uint8_t>& bytes) {
    out_.bytes_.insert(out_.bytes_.end(), bytes.begin(), bytes.end());
}

void message::store_size() {
    store_u32(out_.bytes_.data() + out_.end_ + sizeof(ubus_msghdr),
              static_cast<std::uint32_t>(blob_size()));
}

} // namespace busd
