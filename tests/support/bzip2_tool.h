#pragma once

#include <cstddef>
#include <string>

/// The file decompressed by the system's bunzip2; an explaining text if it refuses the file.
std::string bunzip2(const std::string &path);
/// The text compressed by the system's bzip2 with `options`.
std::string bzip2(const std::string &text, const std::string &options);
/// `size` bytes that look like status records, the same with every call.
std::string log_text(std::size_t size);
/// `size` incompressible bytes, the same with every call.
std::string noise(std::size_t size);
