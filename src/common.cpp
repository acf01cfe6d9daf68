#include "common.h"

#include "handle.h"
#include "trace.h"

#include <algorithm>
#include <array>
#include <cassert>
#include <cctype>
#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constinit std::int32_t node_counter = 0; // main thread only

std::int32_t id_of(const DListNode *node) { return node == nullptr ? -1 : node->id; }

} // namespace

DListNode *d_list_create() {
    assert(gettid() == getpid());
    auto node = record_allocate<DListNode>();
    if (!node) {
        return nullptr;
    }
    node->id = ++node_counter;
    trace(TRACE_TRACE, "DL_ID NEW: %d", node->id);
    return node.release();
}

int d_list_delete(DListNode *node) {
    if (node != nullptr) {
        trace(TRACE_TRACE, "DL_ID DEL: %d %p", node->id, static_cast<void *>(node));
        RecordHandle<DListNode>{node}.reset();
    }
    return 0;
}

DListNode *d_list_add(DListNode *pos, DListNode *node) {
    if (node == nullptr) {
        return nullptr;
    }
    trace(TRACE_TRACE, "DL_ID: %d P: %d N: %d", node->id, id_of(pos), pos == nullptr ? -1 : id_of(pos->next));
    if (pos == nullptr) {
        return nullptr;
    }
    node->next = pos->next;
    node->prev = pos;
    if (pos->next != nullptr) {
        pos->next->prev = node;
    }
    pos->next = node;
    trace(TRACE_TRACE, "DONE");
    return node;
}

DListNode *d_list_remove(DListNode *node) {
    if (node == nullptr) {
        return nullptr;
    }
    trace(TRACE_TRACE, "DL_ID: %d P: %d N: %d", node->id, id_of(node->prev), id_of(node->next));
    if (node->next != nullptr) {
        node->next->prev = node->prev;
    }
    if (node->prev != nullptr) {
        node->prev->next = node->next;
    }
    node->next = nullptr;
    node->prev = nullptr;
    return node;
}

DListNode *d_list_search(DListNode *start, DListCompare compare, const void *key) {
    if (start == nullptr || compare == nullptr || key == nullptr) {
        return nullptr;
    }
    for (DListNode *node = start; node != nullptr; node = node->next) {
        trace(TRACE_TRACE, "DL_ID: %d P: %d N: %d", node->id, id_of(node->prev), id_of(node->next));
        if (node->data != nullptr && compare(node->data, key) != 0) {
            trace(TRACE_TRACE, "FOUND: %d", node->id);
            return node;
        }
    }
    return nullptr;
}

int strsplit(char *text, char **tokens, int max) {
    constexpr const char *separators = " \t\r\n";
    char *rest = nullptr;
    int count = 0;
    do { // reads one token even if `max` is 0: callers use tokens[0]
        tokens[count] = strtok_r(count == 0 ? text : nullptr, separators, &rest);
        if (tokens[count] == nullptr) {
            break;
        }
        ++count;
    } while (count < max);
    return count;
}

// The declaration makes the compiler check the callers' formats.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
std::time_t time_stamp(char *buffer, std::size_t size, const char *format) {
    tzset(); // localtime_r alone does not notice a changed zone file
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    if (now == -1 || localtime_r(&now, &local) == nullptr || std::strftime(buffer, size, format, &local) == 0) {
        return -1;
    }
    return now;
}
#pragma GCC diagnostic pop

namespace {

constexpr std::size_t DUMP_WIDTH = 16;

void dump_line(const unsigned char *bytes, std::size_t count) {
    std::array<char, DUMP_WIDTH + 1> characters{};
    std::fprintf(stderr, "0x%08lX: ", reinterpret_cast<unsigned long>(bytes));
    for (std::size_t i = 0; i < DUMP_WIDTH; ++i) {
        if (i < count) {
            std::fprintf(stderr, " %02X", unsigned{bytes[i]});
            characters[i] = std::isprint(bytes[i]) != 0 ? static_cast<char>(bytes[i]) : '.';
        } else {
            std::fputs("   ", stderr);
            characters[i] = ' ';
        }
    }
    if (count != 1) { // kept: a last line of one byte has no text column and no line end
        std::fprintf(stderr, "  |%s|\n", characters.data());
    }
    std::fflush(stderr);
}

} // namespace

void hex_dump(const void *address, std::size_t length) {
    const auto *bytes = static_cast<const unsigned char *>(address);
    for (std::size_t done = 0; done < length; done += DUMP_WIDTH) {
        dump_line(bytes + done, std::min(DUMP_WIDTH, length - done));
    }
}
