#pragma once

// The list type and small text helpers.

#include <cstddef>
#include <cstdint>
#include <ctime>

/// A node of a doubly linked list. A list is its first node. Nodes do not own their data.
struct DListNode {
    DListNode *next;
    DListNode *prev;
    std::int32_t id; ///< unique in the process, from 1
    void *data;
};

/// Returns non-zero when `data` matches `key`, 0 otherwise.
using DListCompare = int (*)(const void *data, const void *key);

/// A new node with no neighbours and no data, owned by the caller; null when out of memory.
DListNode *d_list_create();
/// Frees the node, which the caller has unlinked, and not its data; returns 0, for none too.
int d_list_delete(DListNode *node);
/// Inserts `node` directly after `pos` and returns it; null, changing nothing, without either.
DListNode *d_list_add(DListNode *pos, DListNode *node);
/// Unlinks `node` and returns it. The caller updates its own head.
DListNode *d_list_remove(DListNode *node);
/// The first node from `start` on whose data is set and matches `key`; null if absent or an argument is null.
DListNode *d_list_search(DListNode *start, DListCompare compare, const void *key);

/// Splits `text` in place at blanks, tabs and line ends and stores up to `max` tokens, followed by a null if
/// the text has fewer. `tokens` has room for max + 1. One token is read even if `max` is 0 or less.
/// Returns the number of tokens.
int strsplit(char *text, char **tokens, int max);

/// Formats the current local time with the strftime `format`; returns the time in seconds since the
/// epoch, or -1 when the text does not fit, its content then undefined.
[[gnu::format(strftime, 3, 0)]] std::time_t time_stamp(char *buffer, std::size_t size, const char *format);

/// Dumps `length` bytes to stderr, 16 per line. Never called by the daemon; kept for use in a debugger.
[[gnu::used, gnu::retain]] void hex_dump(const void *address, std::size_t length);
