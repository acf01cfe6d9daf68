#pragma once

#include <algorithm>
#include <charconv>
#include <cstdarg>
#include <cstddef>
#include <cstdio>
#include <cstring>
#include <string_view>
#include <system_error>

/// Builds a text in a borrowed array. Text that does not fit is truncated; the result is always terminated. An
/// array of size 0 is never written.
class TextBuffer {
  public:
    /// Starts with an empty text.
    TextBuffer(char *data, std::size_t size) : TextBuffer(data, size, 0) {}

    /// Continues after the terminated text in the array.
    static TextBuffer after(char *data, std::size_t size) { return {data, size, strnlen(data, size)}; }

    /// False if the text was truncated.
    bool append(std::string_view text) {
        const std::size_t fitting = std::min(text.size(), remaining());
        std::copy_n(text.data(), fitting, data_ + length_);
        length_ += fitting;
        terminate();
        return fitting == text.size();
    }

    bool append(char character) { return append(std::string_view(&character, 1)); }

    void append_number(int number) {
        const auto [last, error] = std::to_chars(end(), end() + remaining(), number);
        if (error != std::errc()) {
            append_printed("%d", number);
            return;
        }
        length_ = static_cast<std::size_t>(last - data_);
        terminate();
    }

    [[gnu::format(printf, 2, 3)]] void append_format(const char *format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        append_list(format, arguments);
        va_end(arguments);
    }

    /// Formats like vprintf; much faster if the format contains only "%s", "%d" and "%02d".
    [[gnu::format(printf, 2, 0)]] void append_list(const char *format, std::va_list arguments) {
        std::va_list all;
        va_copy(all, arguments);
        const std::size_t start = length_;
        if (!append_plain(format, arguments)) {
            length_ = start;
            append_printed_list(format, all);
        }
        va_end(all);
    }

    /// How many more characters fit.
    [[nodiscard]] std::size_t remaining() const { return size_ == 0 ? 0 : size_ - length_ - 1; }
    /// The end of the text. Writing there does not change the length of this object.
    [[nodiscard]] char *end() { return data_ + length_; }
    [[nodiscard]] const char *c_str() const { return size_ == 0 ? "" : data_; }

  private:
    TextBuffer(char *data, std::size_t size, std::size_t length)
        : data_(data), size_(size), length_(size == 0 ? 0 : std::min(length, size - 1)) {
        terminate();
    }

    /// False at an unknown conversion.
    bool append_plain(const char *format, std::va_list arguments) {
        for (const char *percent = strchrnul(format, '%'); *percent != '\0'; percent = strchrnul(format, '%')) {
            append({format, static_cast<std::size_t>(percent - format)});
            const bool two_digits = percent[1] == '0' && percent[2] == '2';
            const char *letter = percent + (two_digits ? 3 : 1);
            if (*letter == 'd') {
                const int number = va_arg(arguments, int);
                append(two_digits && number >= 0 && number < 10 ? "0" : "");
                append_number(number);
            } else if (*letter == 's' && !two_digits) {
                const char *text = va_arg(arguments, const char *);
                append(text == nullptr ? "(null)" : text);
            } else {
                return false;
            }
            format = letter + 1;
        }
        append(format);
        return true;
    }

    [[gnu::format(printf, 2, 3)]] void append_printed(const char *format, ...) {
        std::va_list arguments;
        va_start(arguments, format);
        append_printed_list(format, arguments);
        va_end(arguments);
    }

    [[gnu::format(printf, 2, 0)]] void append_printed_list(const char *format, std::va_list arguments) {
        const int wanted = std::vsnprintf(size_ == 0 ? nullptr : data_ + length_, size_ - length_, format, arguments);
        length_ += wanted < 0 ? 0 : std::min(static_cast<std::size_t>(wanted), remaining());
        terminate();
    }

    void terminate() {
        if (size_ != 0) {
            data_[length_] = '\0';
        }
    }

    char *data_;
    std::size_t size_;
    std::size_t length_; ///< less than size_, unless that is 0
};
