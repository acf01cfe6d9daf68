#pragma once

// Reads INI files line by line and hands each name and value to a callback.

#include <cstddef>

/// Reads a line of at most `size` - 1 bytes as fgets does; null at the end of the stream.
using IniReader = char *(*)(char *buffer, int size, void *stream);
/// Takes one pair; 0 refuses it and ends the reading.
using IniHandler = int (*)(const char *section, const char *name, const char *value);

/// Hands every pair of `stream` to `handler`, up to the first error. Returns 0 at the end of the input,
/// -1 at a line that is none of INI, -2 when the handler refuses a pair. A line longer than 4095 bytes
/// counts as several. The section is the one of the last header, cut to 49 characters.
int ini_parse_stream(IniReader reader, void *stream, IniHandler handler);
/// The same for the file `path`; -1 also when it cannot be opened or read.
int ini_parse_file(const char *path, IniHandler handler);
/// The reader for a stdio stream.
char *ini_read_line(char *buffer, int size, void *stream);

/// Cuts the white space off the end of `text`; returns `text`.
char *rstrip(char *text);
/// The first character of `text` that is no white space, or its end.
char *lskip(char *text);
/// The first character of `text` that is one of `characters` (null for none) or begins an inline
/// comment, which is a semicolon right behind white space; else the end of `text`.
char *find_chars_or_comment(char *text, const char *characters);
/// Copies what fits of `source` into a buffer of `size` bytes, always terminated; returns the buffer.
char *strncpy0(char *destination, const char *source, std::size_t size);
