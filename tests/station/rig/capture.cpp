#include "capture.h"

#include "datagram_queue.h"
#include "rig_failure.h"

#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <thread>

namespace {

/// The address of the socket at `path`. It has room for 107 characters; a name relative to an open folder always fits.
struct SocketAddress {
    explicit SocketAddress(const std::filesystem::path &path)
        : folder(open(path.parent_path().c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC)) {
        const std::string name = "/proc/self/fd/" + std::to_string(folder.get()) + "/" + path.filename().string();
        name.copy(address.sun_path, sizeof address.sun_path - 1);
    }
    Descriptor folder;
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
};

std::uint64_t little_endian(const char *bytes) {
    std::uint64_t number = 0;
    for (int i = 7; i >= 0; --i) {
        number = number << 8 | static_cast<unsigned char>(bytes[i]);
    }
    return number;
}

Descriptor datagram_socket() { return Descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)); }

/// A socket with room for everything that the daemon writes before the rig reads it, if the rig may have a network
/// namespace; the usual room otherwise.
Descriptor roomy_socket() {
    Descriptor fd;
    std::thread([&fd] {
        lengthen_datagram_queues(2000);
        fd = datagram_socket();
    }).join();
    return fd;
}

Descriptor bound_socket(const std::string &path, Descriptor fd) {
    const SocketAddress at(path);
    if (!fd || bind(fd.get(), reinterpret_cast<const sockaddr *>(&at.address), sizeof at.address) != 0) {
        rig_failure_of("socket " + path);
    }
    return fd;
}

} // namespace

DatagramSocket::DatagramSocket(const std::string &path, Queue queue)
    : fd_(bound_socket(path, queue == Queue::roomy ? roomy_socket() : datagram_socket())) {}

void fill_socket(const std::string &path) {
    if (!fill_datagram_queue(SocketAddress(path).address, "A=x\n")) {
        rig_failure_of("fill " + path);
    }
}

std::vector<std::string> DatagramSocket::take() const {
    std::vector<std::string> datagrams;
    static std::array<char, 65536> buffer{};
    for (;;) {
        const ssize_t size = recv(fd_.get(), buffer.data(), buffer.size(), 0);
        if (size < 0) {
            return datagrams;
        }
        datagrams.emplace_back(buffer.data(), static_cast<std::size_t>(size));
    }
}

// A field is "NAME=value\n", or "NAME\n", the length in 64 bits, the value and "\n".
JournalRecord::JournalRecord(const std::string &datagram) {
    constexpr std::size_t length_size = 8;
    std::size_t at = 0;
    while (at < datagram.size()) {
        const std::size_t end = std::min(datagram.find('\n', at), datagram.size());
        const std::size_t equals = datagram.find('=', at);
        if (equals < end) {
            fields_[datagram.substr(at, equals - at)] = datagram.substr(equals + 1, end - equals - 1);
            at = end + 1;
        } else if (end + 1 + length_size <= datagram.size()) {
            const std::uint64_t length = little_endian(&datagram[end + 1]);
            fields_[datagram.substr(at, end - at)] = datagram.substr(end + 1 + length_size, length);
            at = end + 1 + length_size + length + 1;
        } else {
            rig_failure("no journal record: " + datagram);
        }
    }
}

const std::string &JournalRecord::operator[](const std::string &field) const {
    static const std::string none;
    const auto found = fields_.find(field);
    return found == fields_.end() ? none : found->second;
}

SyslogRecord parse_syslog(const std::string &datagram) {
    constexpr std::size_t stamp_size = sizeof "Mar  1 12:00:07 " - 1;
    const std::size_t stamp = datagram.find('>') + 1;
    const std::size_t colon = datagram.find(": ", stamp + stamp_size);
    if (!datagram.starts_with('<') || stamp == 0 || colon == std::string::npos) {
        rig_failure("no syslog record: " + datagram);
    }
    const int code = std::atoi(datagram.c_str() + 1); // NOLINT(cert-err34-c): up to the '>'
    const std::string sender = datagram.substr(stamp + stamp_size, colon - stamp - stamp_size);
    const std::size_t bracket = sender.find('[');
    return {.facility = LOG_FAC(code) << 3,
            .priority = LOG_PRI(code),
            .identity = sender.substr(0, bracket),
            // NOLINTNEXTLINE(cert-err34-c): up to the ']'
            .pid = bracket == std::string::npos ? 0 : std::atoi(sender.c_str() + bracket + 1),
            .text = datagram.substr(colon + 2)};
}
