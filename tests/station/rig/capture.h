#pragma once

// The sockets that take the place of the journal and syslog.

#include "handle.h"

#include <map>
#include <string>
#include <sys/types.h>
#include <vector>

/// A bound datagram socket with non-blocking reads.
class DatagramSocket {
  public:
    enum class Queue { usual, roomy }; ///< for unread messages
    explicit DatagramSocket(const std::string &path, Queue queue = Queue::usual);
    [[nodiscard]] int fd() const { return fd_.get(); }
    /// Takes all datagrams received so far.
    [[nodiscard]] std::vector<std::string> take() const;

  private:
    Descriptor fd_;
};

/// Sends to the socket at `path` until it is full.
void fill_socket(const std::string &path);

/// The fields of a record by name; "" for a missing field.
class JournalRecord {
  public:
    /// Parses the journal's native protocol.
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

/// Parses "<28>Mar  1 12:00:07 vigmond[812]: the text".
SyslogRecord parse_syslog(const std::string &datagram);
