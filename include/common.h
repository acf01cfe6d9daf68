#pragma once

// The list type, text helpers, and rotation and compression of log files.

#include <cstddef>
#include <cstdint>
#include <ctime>

/// One node of a doubly linked list. The list is its first node; it never owns the data.
struct DListNode {
    DListNode *next;
    DListNode *prev;
    std::int32_t id; ///< unique in the process, from 1
    void *data;
};

/// Returns non-zero when `data` matches `key`, 0 otherwise.
using DListCompare = int (*)(const void *data, const void *key);

/// A new node with no neighbours and no data, owned by the caller; null when memory is out.
DListNode *d_list_create();
/// Frees the node, which the caller has unlinked, and not its data; returns 0, for none too.
int d_list_delete(DListNode *node);
/// Inserts `node` directly behind `pos` and returns it; null, changing nothing, without either.
DListNode *d_list_add(DListNode *pos, DListNode *node);
/// Unlinks `node` and returns it; the owner of the list moves its own head.
DListNode *d_list_remove(DListNode *node);
/// The first node from `start` on whose data is set and matches `key`; null when there is none or an
/// argument is missing.
DListNode *d_list_search(DListNode *start, DListCompare compare, const void *key);

/// Cuts `text` in place at blanks, tabs and line ends, and stores up to `max` tokens, then a null if
/// the text ran out first; `tokens` holds max + 1. At least one token is tried whatever `max` is.
/// Returns the number of tokens.
int strsplit(char *text, char **tokens, int max);

/// Formats the current local time with the strftime `format`; returns the time in seconds since the
/// epoch, or -1 when the text does not fit, its content then undefined.
[[gnu::format(strftime, 3, 0)]] std::time_t time_stamp(char *buffer, std::size_t size, const char *format);

/// Dumps `length` bytes to stderr, 16 a line. The daemon keeps it for a debugger, and never calls it.
[[gnu::used, gnu::retain]] void hex_dump(const void *address, std::size_t length);

/// Shifts the compressed generations of `file` up by one, keeping at most `count`, compresses `file`
/// into generation 000 and removes it, compressed or not. Nothing happens to a stream's name.
void file_rotate(const char *file, std::int32_t count);
/// Compresses `from` ("stdin" is standard input) to `to` ("stdout" is standard output) with bzip2.
/// Returns 0, or -1 after any failure.
int file_compress(const char *from, const char *to);
/// The way back; returns 0 or -1. The daemon keeps it, and never calls it.
[[gnu::used, gnu::retain]] int file_decompress(const char *from, const char *to);
