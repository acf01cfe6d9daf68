#pragma once

// The sockets behind which the daemon expects the journal and syslog.

#include "handle.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

/// A bound datagram socket that is read without waiting.
class DatagramSocket {
  public:
    enum class Queue { usual, roomy }; ///< of the messages that nobody has read yet
    explicit DatagramSocket(const std::string &path, Queue queue = Queue::usual);
    [[nodiscard]] int fd() const { return fd_.get(); }
    /// All datagrams that have come.
    [[nodiscard]] std::vector<std::string> take() const;

  private:
    Descriptor fd_;
};

/// Sends to the socket at `path` until it has no room.
void fill_socket(const std::string &path);

/// The fields of a record by name; "" for one that it does not have.
class JournalRecord {
  public:
    /// Takes the journal's native protocol.
    explicit JournalRecord(const std::string &datagram);
    const std::string &operator[](const std::string &field) const;

  private:
    std::map<std::string, std::string> fields_;
};

struct SyslogRecord {
    int facility;
    int priority;
    std::string identity;
    pid_t pid; ///< 0 without one
    std::string text;
};

/// Takes "<28>Mar  1 12:00:07 vigmond[812]: the text".
SyslogRecord parse_syslog(const std::string &datagram);
