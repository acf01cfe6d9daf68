#pragma once

// The main thread's connection to the system bus, for systemd's unit properties.

#include "handle.h"

#include <array>
#include <cstdint>
#include <string_view>
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

/// The text of a property. That of a late reply is copied into an array: with a slow systemd each heartbeat would
/// otherwise allocate. The reply itself is not kept, because it would keep a dropped connection alive.
class UnitText {
  public:
    /// Takes the library's text, or null.
    void take(char *allocated) {
        allocated_.reset(allocated);
        has_copy_ = false;
    }
    /// Copies the first 63 characters: the states of units are much shorter.
    void copy(const char *text) {
        copy_[std::string_view(text).copy(copy_.data(), copy_.size() - 1)] = '\0';
        has_copy_ = true;
    }

    /// The text, or null.
    [[nodiscard]] const char *get() const { return has_copy_ ? copy_.data() : allocated_.get(); }

  private:
    TextHandle allocated_;
    std::array<char, 64> copy_{};
    bool has_copy_ = false;
};

/// Opens the connection if there is none, or if it is dead or flooded by others; 0 or more, or a negative errno.
int system_bus_open();

/// Reads a property of the systemd unit at the object `path`; 0 or more, or a negative errno. Times out after 5 s.
/// Handles pending signals while it waits, so a termination signal ends the process here. A failed call closes
/// the connection.
int system_bus_read_text(const char *path, const char *property, UnitText *text, UnitError *error);
int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error);
