#pragma once

#include <cstddef>
#include <string>

/// What the system's bunzip2 makes of the file; a text that says so when it refuses it.
std::string bunzip2(const std::string &path);
/// The text as the system's bzip2 compresses it with `options`.
std::string bzip2(const std::string &text, const std::string &options);
/// `size` bytes that look like status records and repeat with every call.
std::string log_text(std::size_t size);
/// `size` bytes that do not compress and repeat with every call.
std::string noise(std::size_t size);
