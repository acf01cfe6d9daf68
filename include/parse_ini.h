#pragma once

// Reads INI files line by line and calls a handler for each name and value.

#include <cstddef>

/// Reads a line of at most `size` - 1 bytes as fgets does; null at the end of the stream.
using IniReader = char *(*)(char *buffer, int size, void *stream);
/// Handles one pair; returning 0 rejects it and ends the reading.
using IniHandler = int (*)(const char *section, const char *name, const char *value);

/// Calls `handler` for every pair of `stream`, up to the first error. Returns 0 at the end of the input,
/// -1 at a malformed line, -2 when the handler rejects a pair. A line longer than 4095 bytes
/// counts as several. The section is the one of the last header, cut to 49 characters.
int ini_parse_stream(IniReader reader, void *stream, IniHandler handler);
/// The same for the file `path`; -1 also when it cannot be opened or read.
int ini_parse_file(const char *path, IniHandler handler);
/// The reader for a stdio stream.
char *ini_read_line(char *buffer, int size, void *stream);

/// Removes white space from the end of `text`; returns `text`.
char *rstrip(char *text);
/// The first character of `text` that is not white space, or its end.
char *lskip(char *text);
/// The first character of `text` that is one of `characters` (null for none) or begins an inline
/// comment, which is a semicolon directly after white space; else the end of `text`.
char *find_chars_or_comment(char *text, const char *characters);
/// Copies as much of `source` as fits into a buffer of `size` bytes, always terminated; returns the buffer.
char *strncpy0(char *destination, const char *source, std::size_t size);
