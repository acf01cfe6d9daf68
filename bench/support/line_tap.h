#pragma once

#include <cstdarg>

/// Sees a journal line, its format and arguments as the library gets them, before the library does,
/// which does not get it at all when the answer is false.
using LineTap = bool (*)(int priority, const char *file, const char *line, const char *function, const char *format,
                         std::va_list arguments);

/// None at first. A program is linked with line_tap.cpp itself, not with a library of it.
extern constinit LineTap line_tap;
