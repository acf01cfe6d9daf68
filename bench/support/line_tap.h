#pragma once

#include <cstdarg>

/// Called with the arguments of a journal line before the library gets it. Returning false drops the line.
using LineTap = bool (*)(int priority, const char *file, const char *line, const char *function, const char *format,
                         std::va_list arguments);

/// Initially null. Link line_tap.cpp directly into the program, not through a library.
extern constinit LineTap line_tap;
