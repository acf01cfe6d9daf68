#pragma once

// The main thread's connection to the system bus, for systemd's unit properties.

#include "handle.h"

#include <cstdint>
#include <memory>
#include <systemd/sd-bus.h>
#include <utility>

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

struct ReleaseUnitMessage {
    void operator()(sd_bus_message *message) const { sd_bus_message_unref(message); }
};
using UnitMessage = std::unique_ptr<sd_bus_message, ReleaseUnitMessage>;

/// A property's text: allocated by the library, or part of a late reply. A copy of our own would be an allocation in
/// each heartbeat with a slow systemd.
class UnitText {
  public:
    UnitText() = default;
    explicit UnitText(char *allocated) : allocated_(allocated), text_(allocated) {}
    UnitText(UnitMessage reply, const char *text) : reply_(std::move(reply)), text_(text) {}

    /// The text, or null.
    [[nodiscard]] const char *get() const { return text_; }

  private:
    TextHandle allocated_;
    UnitMessage reply_;
    const char *text_ = nullptr;
};

/// Opens the connection if there is none, or if it is dead or flooded by others; 0 or more, or a negative errno.
int system_bus_open();

/// Reads a property of the systemd unit at the object `path`; 0 or more, or a negative errno. Times out after 5 s.
/// Handles pending signals while it waits, so a termination signal ends the process here. A failed call closes
/// the connection.
int system_bus_read_text(const char *path, const char *property, UnitText *text, UnitError *error);
int system_bus_read_number(const char *path, const char *property, std::uint64_t *number, UnitError *error);
