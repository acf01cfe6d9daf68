#include "captured_traces.h"
#include "chosen_time.h"
#include "common.h"
#include "memory_fault.h"

#include <array>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <string_view>
#include <unistd.h>
#include <vector>

// The list.

namespace {

struct DeleteNode {
    void operator()(DListNode *node) const { d_list_delete(node); }
};
using Node = std::unique_ptr<DListNode, DeleteNode>;

Node new_node() { return Node(d_list_create()); }

// Created before any test, so it is the first in the process.
const Node FIRST_NODE = new_node();

std::string links(const DListNode *node, const DListNode *prev, const DListNode *next) {
    const auto id = [](const DListNode *other) { return std::to_string(other == nullptr ? -1 : other->id); };
    return "DL_ID: " + id(node) + " P: " + id(prev) + " N: " + id(next);
}

/// The trace texts without prefix, in order.
std::vector<std::string> texts(const CapturedTraces &traces) {
    std::vector<std::string> result;
    for (const CapturedTrace &trace : traces.all()) {
        EXPECT_THAT(trace.line, testing::StartsWith("(3) "));
        EXPECT_EQ(trace.code_file, "CODE_FILE=common.c");
        result.push_back(trace.text);
    }
    return result;
}

class List : public testing::Test {
  protected:
    void SetUp() override {
        d_list_add(a.get(), c.get());
        d_list_add(a.get(), b.get());
    }
    static void expect_order(const std::vector<Node *> &order) {
        DListNode *prev = nullptr;
        DListNode *node = order.front()->get();
        for (const Node *expected : order) {
            ASSERT_EQ(node, expected->get());
            EXPECT_EQ(node->prev, prev);
            prev = node;
            node = node->next;
        }
        EXPECT_EQ(node, nullptr);
    }

    Node a = new_node();
    Node b = new_node();
    Node c = new_node();
};

int is_same_text(const void *data, const void *key) {
    return std::strcmp(static_cast<const char *>(data), static_cast<const char *>(key)) == 0 ? 1 : 0;
}

int never(const void * /*data*/, const void * /*key*/) { return 0; }

} // namespace

TEST(ListCreate, NumbersNodesFromOne) {
    EXPECT_EQ(FIRST_NODE->id, 1);
    const Node second = new_node();
    const Node third = new_node();
    EXPECT_GT(second->id, FIRST_NODE->id);
    EXPECT_EQ(third->id, second->id + 1);
}

TEST(ListCreate, MakesANodeWithoutNeighboursAndData) {
    const CapturedTraces traces;
    const Node node = new_node();
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->prev, nullptr);
    EXPECT_EQ(node->data, nullptr);
    EXPECT_THAT(texts(traces), testing::ElementsAre("DL_ID NEW: " + std::to_string(node->id)));
    EXPECT_THAT(traces.texts_of("d_list_create"), testing::SizeIs(1));
}

TEST(ListCreate, UsesNoNumberWhenOutOfMemory) {
    const Node before = new_node();
    {
        const CapturedTraces traces;
        const MemoryFault fault(1);
        EXPECT_EQ(d_list_create(), nullptr);
        EXPECT_TRUE(traces.all().empty());
    }
    EXPECT_EQ(new_node()->id, before->id + 1);
}

TEST(ListDelete, NeverReusesANumber) {
    Node node = new_node();
    const std::int32_t id = node->id;
    node.reset();
    EXPECT_EQ(new_node()->id, id + 1);
}

TEST(ListDelete, TracesTheNode) {
    DListNode *node = d_list_create();
    std::array<char, 64> expected{};
    std::snprintf(expected.data(), expected.size(), "DL_ID DEL: %d %p", node->id, static_cast<void *>(node));
    const CapturedTraces traces;
    EXPECT_EQ(d_list_delete(node), 0);
    EXPECT_THAT(texts(traces), testing::ElementsAre(expected.data()));
}

TEST(ListDelete, AcceptsNull) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_delete(nullptr), 0);
    EXPECT_TRUE(traces.all().empty());
}

TEST_F(List, DeletingDoesNotUnlink) {
    const DListNode *deleted = b.get();
    b.reset();
    EXPECT_EQ(a->next, deleted); // only compared, not dereferenced
    EXPECT_EQ(c->prev, deleted);
}

TEST(ListDelete, LeavesTheDataAlone) {
    std::string data = "mine"; // freed twice if the node owned it
    Node node = new_node();
    node->data = &data;
    node.reset();
    EXPECT_EQ(data, "mine");
}

TEST_F(List, AddInsertsDirectlyAfterThePosition) {
    expect_order({&a, &b, &c});
    const Node d = new_node();
    EXPECT_EQ(d_list_add(b.get(), d.get()), d.get());
    DListNode *const order[] = {a.get(), b.get(), d.get(), c.get()};
    for (std::size_t i = 0; i < 4; ++i) {
        EXPECT_EQ(order[i]->prev, i == 0 ? nullptr : order[i - 1]);
        EXPECT_EQ(order[i]->next, i == 3 ? nullptr : order[i + 1]);
    }
}

TEST_F(List, AddAppendsAfterTheLast) {
    const Node d = new_node();
    d_list_add(c.get(), d.get());
    EXPECT_EQ(c->next, d.get());
    EXPECT_EQ(d->prev, c.get());
    EXPECT_EQ(d->next, nullptr);
}

TEST_F(List, AddTracesTheNumbersBeforeLinking) {
    const Node d = new_node();
    const Node e = new_node();
    const CapturedTraces traces;
    d_list_add(a.get(), d.get());
    d_list_add(c.get(), e.get());
    EXPECT_THAT(texts(traces), testing::ElementsAre(links(d.get(), a.get(), b.get()), "DONE",
                                                    links(e.get(), c.get(), nullptr), "DONE"));
    EXPECT_THAT(traces.texts_of("d_list_add"), testing::SizeIs(4));
}

TEST_F(List, AddOfNullChangesNothing) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_add(b.get(), nullptr), nullptr);
    EXPECT_EQ(d_list_add(nullptr, nullptr), nullptr);
    EXPECT_TRUE(traces.all().empty());
    expect_order({&a, &b, &c});
}

TEST_F(List, AddWithoutPositionTracesAndChangesNothing) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_add(nullptr, b.get()), nullptr);
    EXPECT_THAT(texts(traces), testing::ElementsAre(links(b.get(), nullptr, nullptr)));
    expect_order({&a, &b, &c});
}

TEST_F(List, RemoveOfTheMiddleClosesTheGap) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_remove(b.get()), b.get());
    EXPECT_THAT(texts(traces), testing::ElementsAre(links(b.get(), a.get(), c.get())));
    EXPECT_EQ(b->next, nullptr);
    EXPECT_EQ(b->prev, nullptr);
    expect_order({&a, &c});
}

TEST_F(List, RemoveOfTheFirstLeavesTheSecondWithoutPredecessor) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_remove(a.get()), a.get());
    EXPECT_THAT(texts(traces), testing::ElementsAre(links(a.get(), nullptr, b.get())));
    EXPECT_EQ(a->next, nullptr);
    expect_order({&b, &c});
}

TEST_F(List, RemoveOfTheLastLeavesTheOneBeforeWithoutSuccessor) {
    EXPECT_EQ(d_list_remove(c.get()), c.get());
    EXPECT_EQ(c->prev, nullptr);
    expect_order({&a, &b});
}

TEST(ListRemove, ReturnsASingleNodeUnchanged) {
    const Node node = new_node();
    node->data = node.get();
    EXPECT_EQ(d_list_remove(node.get()), node.get());
    EXPECT_EQ(node->next, nullptr);
    EXPECT_EQ(node->prev, nullptr);
    EXPECT_EQ(node->data, node.get());
}

TEST(ListRemove, AcceptsNull) {
    const CapturedTraces traces;
    EXPECT_EQ(d_list_remove(nullptr), nullptr);
    EXPECT_TRUE(traces.all().empty());
}

TEST_F(List, SearchFindsTheFirstMatchFromItsStart) {
    std::string text = "wlan0";
    std::string other = "eth0";
    a->data = text.data();
    b->data = other.data();
    c->data = text.data();
    EXPECT_EQ(d_list_search(a.get(), is_same_text, "wlan0"), a.get());
    EXPECT_EQ(d_list_search(b.get(), is_same_text, "wlan0"), c.get());
    EXPECT_EQ(d_list_search(a.get(), is_same_text, "eth0"), b.get());
    EXPECT_EQ(d_list_search(c.get(), is_same_text, "eth0"), nullptr);
}

TEST_F(List, SearchSkipsNodesWithoutData) {
    static int calls = 0;
    calls = 0;
    const auto compare = [](const void *data, const void *key) {
        ++calls;
        return is_same_text(data, key);
    };
    std::string text = "wlan0";
    b->data = text.data();
    const CapturedTraces traces;
    EXPECT_EQ(d_list_search(a.get(), compare, "wlan0"), b.get());
    EXPECT_EQ(calls, 1);
    EXPECT_THAT(texts(traces), testing::ElementsAre(links(a.get(), nullptr, b.get()), links(b.get(), a.get(), c.get()),
                                                    "FOUND: " + std::to_string(b->id)));
    EXPECT_THAT(traces.texts_of("d_list_search"), testing::SizeIs(3));
}

TEST_F(List, SearchTakesAnyNonZeroResultAsAMatch) {
    std::string text = "x";
    a->data = text.data();
    b->data = text.data();
    EXPECT_EQ(d_list_search(a.get(), never, "x"), nullptr);
    EXPECT_EQ(d_list_search(
                  a.get(), [](const void *, const void *) { return -1; }, "x"),
              a.get());
}

TEST_F(List, SearchWithoutAnArgumentFindsNone) {
    std::string text = "x";
    a->data = text.data();
    const CapturedTraces traces;
    EXPECT_EQ(d_list_search(nullptr, is_same_text, "x"), nullptr);
    EXPECT_EQ(d_list_search(a.get(), nullptr, "x"), nullptr);
    EXPECT_EQ(d_list_search(a.get(), is_same_text, nullptr), nullptr);
    EXPECT_TRUE(traces.all().empty());
}

// strsplit.

namespace {

struct Split {
    std::string text;
    int max;
    std::vector<std::string> tokens;
    bool terminated;
};

} // namespace

TEST(Strsplit, CutsAtBlanksTabsAndLineEnds) {
    const std::vector<Split> cases{
        {"  a\tb\n", 10, {"a", "b"}, true},
        {"a b c", 10, {"a", "b", "c"}, true},
        {"a b c", 4, {"a", "b", "c"}, true},
        {"a b c", 3, {"a", "b", "c"}, false},
        {"a b c", 2, {"a", "b"}, false},
        {"a b c", 1, {"a"}, false},
        {"a b c", 0, {"a"}, false}, // one token whatever the maximum
        {"a b c", -5, {"a"}, false},
        {"a", INT_MIN, {"a"}, false},
        {"", 10, {}, true},
        {"", 0, {}, true},
        {" \t\r\n", 10, {}, true},
        {" \t\r\n", -1, {}, true},
        {"\r\n\t a \r\n\t b\t\t", 10, {"a", "b"}, true},
        {"a\vb\fc", 10, {"a\vb\fc"}, true},
        {"\xff\x01 \x80", 10, {"\xff\x01", "\x80"}, true},
    };
    static char untouched[] = "untouched";
    for (const Split &item : cases) {
        std::array<char *, 11> tokens{};
        tokens.fill(untouched);
        std::string text = item.text;
        const int count = strsplit(text.data(), tokens.data(), item.max);
        ASSERT_EQ(static_cast<std::size_t>(count), item.tokens.size()) << item.text << ' ' << item.max;
        for (std::size_t i = 0; i < item.tokens.size(); ++i) {
            EXPECT_EQ(tokens[i], item.tokens[i]);
            EXPECT_TRUE(tokens[i] >= text.data() && tokens[i] < text.data() + text.size()) << "not in place";
        }
        EXPECT_EQ(tokens[item.tokens.size()], item.terminated ? nullptr : untouched) << item.text << ' ' << item.max;
    }
}

TEST(Strsplit, LeavesTheRestUnsplit) {
    std::string text = "a b c d";
    std::array<char *, 3> tokens{};
    EXPECT_EQ(strsplit(text.data(), tokens.data(), 2), 2);
    EXPECT_EQ(text, std::string("a\0b\0c d", 7));
}

// time_stamp. The program is linked with --wrap for time().

namespace {

/// Sets the process's time zone while it exists.
class Zone {
  public:
    explicit Zone(const char *name) { setenv("TZ", name, 1); }
    ~Zone() { unsetenv("TZ"); }
    Zone(const Zone &) = delete;
    Zone &operator=(const Zone &) = delete;
};

class TimeStamp : public testing::Test {
  protected:
    void TearDown() override { chosen_time.reset(); }
    std::array<char, 64> text{};
};

constexpr const char *FORMAT = "%Y-%m-%d %H:%M:%S";
constexpr std::time_t BEFORE_2038 = 2147483647; // 2038-01-19 03:14:07 UTC
constexpr std::size_t FORMATTED_SIZE = sizeof "2038-01-19 03:14:07";

} // namespace

TEST_F(TimeStamp, FormatsTheLocalTimeAndReturnsTheSeconds) {
    const Zone zone("XXX-05:30"); // 5 h 30 min ahead
    chosen_time = BEFORE_2038;
    EXPECT_EQ(time_stamp(text.data(), text.size(), FORMAT), BEFORE_2038);
    EXPECT_STREQ(text.data(), "2038-01-19 08:44:07");
}

TEST_F(TimeStamp, FollowsAChangeOfZone) {
    chosen_time = BEFORE_2038;
    for (const auto &[name, hour] : {std::pair{"XXX0", "03"}, {"XXX+01", "02"}, {"XXX-09", "12"}}) {
        const Zone zone(name);
        EXPECT_EQ(time_stamp(text.data(), text.size(), "%H"), BEFORE_2038);
        EXPECT_STREQ(text.data(), hour);
    }
}

TEST_F(TimeStamp, ContinuesAfterTheEndOf32BitTime) {
    const Zone zone("UTC0");
    chosen_time = BEFORE_2038 + 1;
    EXPECT_EQ(time_stamp(text.data(), text.size(), FORMAT), BEFORE_2038 + 1);
    EXPECT_STREQ(text.data(), "2038-01-19 03:14:08");
}

TEST_F(TimeStamp, NeedsRoomForTheTextAndItsTerminator) {
    EXPECT_EQ(time_stamp(text.data(), 5, FORMAT), -1);
    EXPECT_EQ(time_stamp(text.data(), 0, FORMAT), -1);
    EXPECT_EQ(time_stamp(text.data(), FORMATTED_SIZE - 1, FORMAT), -1);
    EXPECT_GT(time_stamp(text.data(), FORMATTED_SIZE, FORMAT), 0);
}

TEST_F(TimeStamp, FailsWhenThereIsNoLocalTime) {
    chosen_time = -1; // the result of a failed clock
    EXPECT_EQ(time_stamp(text.data(), text.size(), FORMAT), -1);
    chosen_time = INT64_MAX; // the year does not fit
    EXPECT_EQ(time_stamp(text.data(), text.size(), FORMAT), -1);
}

TEST_F(TimeStamp, ReadsTheClock) {
    const std::time_t before = std::time(nullptr);
    const std::time_t stamp = time_stamp(text.data(), text.size(), FORMAT);
    EXPECT_GE(stamp, before);
    EXPECT_LE(stamp, std::time(nullptr));
}

// hex_dump.

namespace {

std::string dumped(const std::string &bytes) {
    testing::internal::CaptureStderr();
    hex_dump(bytes.data(), bytes.size());
    return testing::internal::GetCapturedStderr();
}

/// The start of the line for the byte at `offset`.
std::string address(const std::string &bytes, std::size_t offset) {
    std::array<char, 32> text{};
    std::snprintf(text.data(), text.size(), "0x%08lX: ", reinterpret_cast<unsigned long>(bytes.data() + offset));
    return text.data();
}

std::string bytes_missing(std::size_t count) {
    std::string blanks(3 * count, ' ');
    return blanks;
}

} // namespace

TEST(HexDump, WritesNothingForNoBytes) {
    EXPECT_EQ(dumped(""), "");
    testing::internal::CaptureStderr();
    hex_dump(nullptr, 0);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(HexDump, WritesSixteenBytesALine) {
    const std::string bytes = "0123456789abcdefghijklmnopqrstuv";
    EXPECT_EQ(dumped(bytes),
              address(bytes, 0) + " 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|\n" +
                  address(bytes, 16) + " 67 68 69 6A 6B 6C 6D 6E 6F 70 71 72 73 74 75 76  |ghijklmnopqrstuv|\n");
}

TEST(HexDump, ShowsUnprintableBytesAsDots) {
    const std::string bytes("\0\x1F ~\x7F\x80\xFF\n|%", 10);
    EXPECT_EQ(dumped(bytes), address(bytes, 0) + " 00 1F 20 7E 7F 80 FF 0A 7C 25" + bytes_missing(6) +
                                 "  |.. ~...."
                                 "|%      |\n");
}

TEST(HexDump, PadsThePartialLastLine) {
    const std::string bytes = "0123456789abcdefXY";
    EXPECT_EQ(dumped(bytes),
              address(bytes, 0) + " 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|\n" +
                  address(bytes, 16) + " 58 59" + bytes_missing(14) + "  |XY" + std::string(14, ' ') + "|\n");
}

TEST(HexDump, OmitsTheCharactersOfASingleLastByte) {
    const std::string one = "A";
    EXPECT_EQ(dumped(one), address(one, 0) + " 41" + bytes_missing(15));
    const std::string seventeen = "0123456789abcdefX";
    EXPECT_EQ(dumped(seventeen), address(seventeen, 0) +
                                     " 30 31 32 33 34 35 36 37 38 39 61 62 63 64 65 66  |0123456789abcdef|\n" +
                                     address(seventeen, 16) + " 58" + bytes_missing(15));
}

namespace {

std::vector<std::string> flushed;

ssize_t note_flush(void * /*cookie*/, const char *text, std::size_t size) {
    flushed.emplace_back(text, size);
    return static_cast<ssize_t>(size);
}

} // namespace

TEST(HexDump, FlushesAfterEveryLine) {
    const std::string bytes = "0123456789abcdefghijklmnopqrstuvw";
    std::FILE *const original = stderr;
    stderr = fopencookie(nullptr, "w", {.read = nullptr, .write = note_flush, .seek = nullptr, .close = nullptr});
    hex_dump(bytes.data(), bytes.size());
    EXPECT_THAT(flushed, testing::ElementsAre(testing::EndsWith("  |0123456789abcdef|\n"),
                                              testing::EndsWith("  |ghijklmnopqrstuv|\n"),
                                              testing::EndsWith(" 77" + bytes_missing(15))));
    std::fclose(stderr);
    stderr = original;
}
