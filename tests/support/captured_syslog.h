#pragma once

// Takes the place of syslog in unit tests: what the code under test opens and writes is kept here.

#include <string>
#include <vector>

struct SyslogMessage {
    int priority;
    std::string text;

    bool operator==(const SyslogMessage &) const = default;
};

struct SyslogOpening {
    const char *identity; ///< as given: syslog reads it again with each message
    int options;
    int facility;
};

/// Collects from its construction on; what came earlier is forgotten.
class CapturedSyslog {
  public:
    CapturedSyslog();
    /// All messages so far, in order.
    [[nodiscard]] const std::vector<SyslogMessage> &messages() const;
    /// All calls of openlog so far, in order.
    [[nodiscard]] const std::vector<SyslogOpening> &openings() const;
};
