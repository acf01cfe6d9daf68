#pragma once

// The main thread's connection to the system bus, for systemd's unit properties.

#include "handle.h"

#include <cstdint>
#include <systemd/sd-bus.h>

/// The error of a failed bus call. Use a new one for each attempt: a call with an error already set fails at once.
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
    sd_bus_error error_{}; // SD_BUS_ERROR_NULL is a C99 compound literal
};

/// Opens the connection if there is none, or if it is dead or flooded by others; 0 or more, or a negative errno.
int system_bus_open();

/// Reads a property of the systemd unit at the object `path`; 0 or more, or a negative errno. Times out after 5 s.
/// Handles pending signals while it waits, so a termination signal ends the process here. A failed call closes
/// the connection.
int system_bus_read_text(const char *path, const char *property, TextHandle *text, UnitError *error);
int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error);
