#include "output.h"
#include "plot.h"

namespace vlog {

namespace {

/// Maps signed numbers to unsigned ones, small absolute values to small numbers.
std::uint64_t folded(std::int64_t number) {
    return number < 0 ? static_cast<std::uint64_t>(-number) * 2 - 1 : static_cast<std::uint64_t>(number) * 2;
}

constexpr std::string_view DIGITS = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

} // namespace

void RecordPacker::put_byte(unsigned byte, std::string *text) {
    bits_ = bits_ << 8 | byte;
    width_ += 8;
    while (width_ >= 6) {
        width_ -= 6;
        *text += DIGITS[bits_ >> width_ & 63];
    }
    bits_ &= 63;
}

void RecordPacker::put(std::uint64_t number, std::string *text) {
    while (number > 127) {
        put_byte(static_cast<unsigned>(number & 127) | 128, text);
        number >>= 7;
    }
    put_byte(static_cast<unsigned>(number), text);
}

void RecordPacker::add(const SpooledRecord &record, std::string *text) {
    if (count_++ == 0) {
        begin_ = record.time;
        time_ = record.time;
    }
    const std::int64_t step = record.time - time_;
    put(folded(step - step_) * 8 + std::uint64_t{record.state} * 2 + (record.readable == 0 ? 1 : 0), text);
    step_ = step;
    time_ = record.time;
    if (record.readable != 0) {
        put(folded(record.value - value_), text);
        value_ = record.value;
    }
}

void RecordPacker::finish(std::string *text) {
    if (width_ > 0) {
        *text += DIGITS[bits_ << (6 - width_) & 63];
        *text += width_ == 2 ? "==" : "=";
        width_ = 0;
    }
}

std::string html_text(std::string_view text) {
    std::string result;
    for (const char each : utf8_text(text)) {
        switch (each) {
        case '<':
            result += "&lt;";
            break;
        case '>':
            result += "&gt;";
            break;
        case '&':
            result += "&amp;";
            break;
        case '"':
            result += "&quot;";
            break;
        default:
            result += static_cast<unsigned char>(each) < ' ' || each == 127 ? '?' : each;
        }
    }
    return result;
}

} // namespace vlog
