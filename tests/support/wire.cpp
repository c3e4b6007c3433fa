/// Raw messages of the bus for its tests.
#include "support/wire.h"

#include <cerrno>
#include <cstring>
#include <fstream>
#include <grp.h>
#include <iomanip>
#include <poll.h>
#include <pwd.h>
#include <sstream>
#include <stdexcept>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace wire {
namespace {

constexpr int limit_ms = 20000;
constexpr std::size_t header_size = 8;

void append_word(bytes& to, std::uint32_t value) {
    for (const unsigned shift : {24U, 16U, 8U, 0U}) {
        to.push_back(static_cast<std::uint8_t>(value >> shift));
    }
}

std::uint32_t word_at(const bytes& raw, std::size_t offset) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < 4; ++i) {
        value = value << 8 | raw.at(offset + i);
    }
    return value;
}

void put_word(bytes& raw, std::size_t offset, std::uint32_t value) {
    bytes word;
    append_word(word, value);
    std::copy(word.begin(), word.end(), raw.begin() + static_cast<std::ptrdiff_t>(offset));
}

void wait_for(int fd, short events) {
    pollfd watched{fd, events, 0};
    if (::poll(&watched, 1, limit_ms) <= 0) {
        throw std::runtime_error("nothing happens on the socket");
    }
}

bytes with_header(std::uint32_t word, const bytes& payload) {
    bytes made;
    append_word(made, word | static_cast<std::uint32_t>(payload.size() + 4));
    made.insert(made.end(), payload.begin(), payload.end());
    made.resize((made.size() + 3) & ~std::size_t{3});
    return made;
}

} // namespace

bytes u32(std::uint8_t id, std::uint32_t value) {
    bytes payload;
    append_word(payload, value);
    return nested(id, payload);
}

bytes text(std::uint8_t id, const std::string& value) {
    bytes payload(value.begin(), value.end());
    payload.push_back(0);
    return nested(id, payload);
}

bytes nested(std::uint8_t id, const bytes& payload) {
    return with_header(std::uint32_t{id} << 24, payload);
}

bytes operator+(bytes left, const bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

bytes field(std::uint8_t blobmsg_type, const std::string& name, const bytes& payload) {
    bytes inner{static_cast<std::uint8_t>(name.size() >> 8),
                static_cast<std::uint8_t>(name.size())};
    inner.insert(inner.end(), name.begin(), name.end());
    inner.push_back(0);
    inner.resize((inner.size() + 3) & ~std::size_t{3});
    return with_header(std::uint32_t{blobmsg_type} << 24 | 0x80000000, inner + payload);
}

bytes one_method(const std::string& name) {
    constexpr std::uint8_t table = 2;
    return signature(field(table, name, {}));
}

bytes message(std::uint8_t type, std::uint16_t seq, std::uint32_t peer, const bytes& attributes) {
    bytes made{0, type, static_cast<std::uint8_t>(seq >> 8), static_cast<std::uint8_t>(seq)};
    append_word(made, peer);
    append_word(made, static_cast<std::uint32_t>(attributes.size() + 4));
    return made + attributes;
}

std::uint16_t received::seq() const {
    return static_cast<std::uint16_t>(word(0) & 0xffff);
}

std::uint32_t received::word(std::size_t offset) const {
    return word_at(raw, offset);
}

bytes received::attribute(std::uint8_t id) const {
    for (std::size_t at = header_size + 4; at + 4 <= raw.size();) {
        const std::uint32_t head = word(at);
        const std::size_t length = head & 0xffffff;
        if (head >> 24 == id) {
            return {raw.begin() + static_cast<std::ptrdiff_t>(at + 4),
                    raw.begin() + static_cast<std::ptrdiff_t>(at + length)};
        }
        at += (length + 3) & ~std::size_t{3};
    }
    return {};
}

std::uint32_t received::number(std::uint8_t id) const {
    return word_at(attribute(id), 0);
}

peer& peer::operator=(peer&& other) noexcept {
    std::swap(fd_, other.fd_);
    return *this;
}

peer::~peer() {
    close();
}

void peer::close() {
    if (fd_ >= 0) {
        ::close(fd_);
        fd_ = -1;
    }
}

void peer::send(const bytes& raw) const {
    for (std::size_t sent = 0; sent < raw.size();) {
        const ssize_t count =
            ::send(fd_, raw.data() + sent, raw.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno == EAGAIN) {
            wait_for(fd_, POLLOUT);
        } else {
            throw std::runtime_error(std::string("send: ") + std::strerror(errno));
        }
    }
}

std::size_t peer::send_some(const bytes& raw) const {
    const ssize_t count = ::send(fd_, raw.data(), raw.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    return count > 0 ? static_cast<std::size_t>(count) : 0;
}

bytes peer::receive_bytes(std::size_t count) const {
    bytes got(count);
    for (std::size_t have = 0; have < count;) {
        wait_for(fd_, POLLIN);
        const ssize_t now = ::recv(fd_, got.data() + have, count - have, 0);
        if (now <= 0) {
            throw std::runtime_error("the stream has ended");
        }
        have += static_cast<std::size_t>(now);
    }
    return got;
}

received peer::receive() const {
    received got{receive_bytes(header_size + 4)};
    const std::size_t length = got.word(header_size) & 0xffffff;
    got.raw = got.raw + receive_bytes(length - 4);
    return got;
}

void peer::wait_for_end() const {
    bytes ignored(65536);
    ssize_t count = 0;
    do {
        wait_for(fd_, POLLIN);
        count = ::recv(fd_, ignored.data(), ignored.size(), 0);
    } while (count > 0);
}

bool peer::readable() const {
    pollfd watched{fd_, POLLIN, 0};
    return ::poll(&watched, 1, 0) > 0;
}

listening::listening() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) {
        throw std::runtime_error("too long for a socket: " + path_);
    }
    std::memcpy(address.sun_path, path_.c_str(), path_.size());
    fd_ = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        ::listen(fd_, 16) != 0) {
        throw std::runtime_error("cannot listen on " + path_);
    }
}

listening::~listening() {
    ::close(fd_);
}

peer listening::accept() const {
    wait_for(fd_, POLLIN);
    return peer(::accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC));
}

std::vector<recorded> load(const std::string& file) {
    std::ifstream in(std::string(TARN_TEST_DATA) + "/" + file);
    std::vector<recorded> lines;
    std::string line;
    while (std::getline(in, line)) {
        if (line.empty() || line[0] == '#') {
            continue;
        }
        std::istringstream words(line);
        std::string direction;
        std::string name;
        std::string digits;
        words >> direction >> name >> digits;
        const std::size_t arrow = direction.find("->");
        const bool from_client = direction.compare(arrow, std::string::npos, "->bus") == 0;
        recorded entry{from_client ? direction.substr(0, arrow) : direction.substr(arrow + 2),
                       from_client,
                       {}};
        for (std::size_t i = 0; i + 1 < digits.size(); i += 2) {
            entry.raw.push_back(
                static_cast<std::uint8_t>(std::stoul(digits.substr(i, 2), nullptr, 16)));
        }
        lines.push_back(std::move(entry));
    }
    if (lines.empty()) {
        throw std::runtime_error("no recording in " + file);
    }
    return lines;
}

void id_map::learn(const std::vector<recorded>& lines) {
    for (const recorded& line : lines) {
        const received message{line.raw};
        if (line.from_client) {
            continue;
        }
        if (message.type() == hello) {
            recorded_.insert(message.peer());
        } else if (message.type() == data) {
            for (const std::uint8_t id : {std::uint8_t{3}, std::uint8_t{5}}) {
                if (!message.attribute(id).empty()) {
                    recorded_.insert(message.number(id));
                }
            }
        }
    }
}

bytes id_map::to_actual(bytes raw) const {
    for (std::size_t at = 4; at + 4 <= raw.size(); at += 4) {
        const auto known = actual_.find(word_at(raw, at));
        if (known != actual_.end()) {
            put_word(raw, at, known->second);
        }
    }
    return raw;
}

bytes id_map::to_recorded(bytes raw, const bytes& expected) {
    for (std::size_t at = 4; at + 4 <= raw.size() && at + 4 <= expected.size(); at += 4) {
        const std::uint32_t wanted = word_at(expected, at);
        if (recorded_.count(wanted) != 0 &&
            actual_.emplace(wanted, word_at(raw, at)).first->second == word_at(raw, at)) {
            put_word(raw, at, wanted);
        }
    }
    return raw;
}

bytes with_own_names(const bytes& raw) {
    const received old{raw};
    bytes attributes;
    for (std::size_t at = header_size + 4; at < raw.size();) {
        const std::uint32_t head = old.word(at);
        const std::size_t padded = ((head & 0xffffff) + 3) & ~std::size_t{3};
        if (head >> 24 == 12) {
            attributes = attributes + text(12, own_user());
        } else if (head >> 24 == 13) {
            attributes = attributes + text(13, own_group());
        } else {
            attributes.insert(attributes.end(), raw.begin() + static_cast<std::ptrdiff_t>(at),
                              raw.begin() + static_cast<std::ptrdiff_t>(at + padded));
        }
        at += padded;
    }
    return message(old.type(), old.seq(), old.peer(), attributes);
}

std::string own_user() {
    const passwd* entry = ::getpwuid(::geteuid());
    return entry != nullptr ? entry->pw_name : std::to_string(::geteuid());
}

std::string own_group() {
    const group* entry = ::getgrgid(::getegid());
    return entry != nullptr ? entry->gr_name : std::to_string(::getegid());
}

std::string hex(const bytes& raw) {
    std::ostringstream out;
    out << std::hex << std::setfill('0');
    for (const std::uint8_t byte : raw) {
        out << std::setw(2) << unsigned{byte};
    }
    return out.str();
}

} // namespace wire
