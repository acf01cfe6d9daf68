#pragma once

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>

/// Builds a text in an array that it borrows. What does not fit is cut; the text is terminated at all
/// times. An array of size 0 is left alone.
class TextBuffer {
  public:
    /// Starts with an empty text.
    TextBuffer(char *data, std::size_t size) : TextBuffer(data, size, 0) {}

    /// Goes on behind the terminated text that stands in the array.
    static TextBuffer behind(char *data, std::size_t size) { return {data, size, strnlen(data, size)}; }

    /// False when the text was cut.
    bool append(std::string_view text) {
        const std::size_t fitting = std::min(text.size(), space());
        std::copy_n(text.data(), fitting, data_ + length_);
        length_ += fitting;
        terminate();
        return fitting == text.size();
    }

    bool append(char character) { return append(std::string_view(&character, 1)); }

    /// False when the text was cut.
    bool append_number(int number) {
        const auto [last, error] = std::to_chars(end(), end() + space(), number);
        if (error != std::errc()) {
            return append_format("%d", number);
        }
        length_ = static_cast<std::size_t>(last - data_);
        terminate();
        return true;
    }

    /// False when the text was cut.
    [[gnu::format(printf, 2, 3)]] bool append_format(const char *format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        const bool fits = append_list(format, arguments);
        va_end(arguments);
        return fits;
    }

    /// False when the text was cut.
    [[gnu::format(printf, 2, 0)]] bool append_list(const char *format, std::va_list arguments) {
        const int result = std::vsnprintf(size_ == 0 ? nullptr : data_ + length_, room(), format, arguments);
        const std::size_t wanted = result < 0 ? 0 : static_cast<std::size_t>(result);
        const std::size_t fitting = std::min(wanted, space());
        length_ += fitting;
        terminate();
        return fitting == wanted;
    }

    /// The bytes left, that of the terminator included: a shorter text fits whole.
    [[nodiscard]] std::size_t room() const { return size_ - length_; }
    /// Where the next text goes; one written there by others does not count as this object's.
    [[nodiscard]] char *end() { return data_ + length_; }
    [[nodiscard]] const char *c_str() const { return size_ == 0 ? "" : data_; }

  private:
    TextBuffer(char *data, std::size_t size, std::size_t length)
        : data_(data), size_(size), length_(size == 0 ? 0 : std::min(length, size - 1)) {
        terminate();
    }

    [[nodiscard]] std::size_t space() const { return size_ == 0 ? 0 : room() - 1; }

    void terminate() {
        if (size_ != 0) {
            data_[length_] = '\0';
        }
    }

    char *data_;
    std::size_t size_;
    std::size_t length_; ///< below size_, unless that is 0
};
