#pragma once

// The main thread's connection to the system bus, for systemd's unit properties.

#include "handle.h"

#include <cstdint>
#include <systemd/sd-bus.h>

/// The error that a failed bus call leaves behind; one for each try, since a call given a set error
/// fails without asking.
class UnitError {
  public:
    UnitError() = default;
    ~UnitError() { sd_bus_error_free(&error_); }
    UnitError(const UnitError &) = delete;
    UnitError(UnitError &&) = delete;
    UnitError &operator=(const UnitError &) = delete;
    UnitError &operator=(UnitError &&) = delete;

    /// The bus error's name and message, empty when there is none.
    [[nodiscard]] const char *name() const { return error_.name == nullptr ? "" : error_.name; }
    [[nodiscard]] const char *message() const { return error_.message == nullptr ? "" : error_.message; }
    sd_bus_error *get() { return &error_; }

  private:
    sd_bus_error error_{}; // as SD_BUS_ERROR_NULL, which is a literal of C99
};

/// Makes sure of a connection, replacing one that has died or that others have flooded; 0 or more, or a negative
/// errno.
int system_bus_open();

/// Reads a property of the systemd unit at the object `path`; 0 or more, or a negative errno. A call without an
/// answer ends after 5 s, in which held signals are taken, so that it may not return. The connection of a question
/// that failed is dropped.
int system_bus_read_text(const char *path, const char *property, TextHandle *text, UnitError *error);
int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error);
