// The wall clock jumps and passes the limits of 31 and 32 bits.

#include "busy_station.h"
#include "passes.h"
#include "status_log.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <optional>

using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::SizeIs;

namespace {

constexpr std::int64_t NOON = 1709294400; // 2024-03-01
constexpr std::int64_t HOUR = 3600;
constexpr std::int64_t DAY = 24 * HOUR;
constexpr std::int64_t YEAR = 365 * DAY;
constexpr std::int64_t HEARTBEAT = 10;

struct Announcement {
    std::string member;
    dbus_uint32_t time;
    std::vector<std::string> labels;
};

Announcement announcement_of(const BusMessage &signal) {
    Announcement result{.member = dbus_message_get_member(signal.get()), .time = 0, .labels = {}};
    char **labels = nullptr;
    int count = 0;
    EXPECT_NE(dbus_message_get_args(signal.get(), nullptr, DBUS_TYPE_UINT32, &result.time, DBUS_TYPE_ARRAY,
                                    DBUS_TYPE_STRING, static_cast<void *>(&labels), &count, DBUS_TYPE_INVALID),
              0U);
    result.labels.assign(labels, labels + count);
    dbus_free_string_array(labels);
    return result;
}

/// The times in a listing.
std::vector<dbus_uint32_t> times_listed(const BusMessage &listing) {
    std::vector<dbus_uint32_t> times;
    DBusMessageIter body{};
    DBusMessageIter array{};
    if (dbus_message_iter_init(listing.get(), &body) == 0) {
        return times;
    }
    for (dbus_message_iter_recurse(&body, &array); dbus_message_iter_get_arg_type(&array) == DBUS_TYPE_STRUCT;
         dbus_message_iter_next(&array)) {
        DBusMessageIter element{};
        dbus_uint32_t time = 0;
        dbus_message_iter_recurse(&array, &element);
        dbus_message_iter_get_basic(&element, &time);
        times.push_back(time);
    }
    return times;
}

struct Time : testing::Test {
    Time() { client.watch("type='signal',interface='com.corvana.State2.Issues'"); }

    void start_at(std::int64_t seconds) {
        place.emplace(world, busy_board().clock(seconds));
        place->launch_busy({"-D"});
        place->await_wait_after(0);
        client.wait_for_owner(SERVICE_NAME);
    }
    Announcement next_announcement() {
        return announcement_of(client.wait_for([](DBusMessage *message) {
            return dbus_message_has_interface(message, "com.corvana.State2.Issues") != 0;
        }));
    }
    BusMessage listing() {
        return client.call(method_call("/com/corvana/Monitoring1", "com.corvana.State2.Issues", "GetListing"));
    }
    /// Sends the heartbeat at that second.
    void beat_at(std::int64_t seconds) {
        station().set_clock(seconds);
        station().step(0);
    }

    BusyStation &station() { return *place; }

    BusyWorld world;
    BusClient client{world.bus()};
    std::optional<BusyStation> place;
};

/// Starts five samples before a limit of the time; the fifth reports an overheated CPU.
struct Limit {
    const char *name;
    std::int64_t limit;
    std::int64_t start;
    std::int64_t fifth;
    dbus_uint32_t announced;
    const char *stamp;
};

class TimeLimit : public Time, public testing::WithParamInterface<Limit> {};

} // namespace

TEST_P(TimeLimit, IsPassedLikeAnyOtherSecond) {
    const Limit &limit = GetParam();
    start_at(limit.start);
    for (std::int64_t second = limit.fifth - 30; second <= limit.fifth; second += 10) {
        beat_at(second);
    }
    const Announcement raised = next_announcement();
    EXPECT_EQ(raised.member, "NewIssues");
    EXPECT_EQ(raised.time, limit.announced);
    EXPECT_THAT(raised.labels, ElementsAre("CB20"));
    EXPECT_THAT(times_listed(listing()), ElementsAre(limit.announced));
    EXPECT_THAT(records_in(station().recorded()), Contains(std::string(limit.stamp) + "\tWARN\tCB20\t0\t75"));
    EXPECT_THAT(pass_times(station().trace()), SizeIs(5));
    beat_at(limit.fifth + 3600); // one task an hour, the others more often
    EXPECT_THAT(station().trace().messages_with("wearout: next_run"), SizeIs(2));
    EXPECT_EQ(station().stop(), 1);
}

INSTANTIATE_TEST_SUITE_P(Limits, TimeLimit,
                         testing::Values(Limit{"2038", 2147483647, 2147483637, 2147483670, 2147483670U,
                                               "2038-01-19 03:14:30"},
                                         Limit{"2106", 4294967295, 4294967277, 4294967310, 14U, "2106-02-07 06:28:30"}),
                         [](const testing::TestParamInfo<Limit> &limit) { return std::string(limit.param.name); });

// A task waits for its scheduled time. A change dated in the future counts as new in every pass until then.
TEST_F(Time, SetBackAnHourDoesNotStopThePasses) {
    start_at(NOON + 7);
    beat_at(NOON + 10);
    const std::size_t records = records_in(station().recorded()).size();
    for (int beat = 1; beat <= 3; ++beat) {
        beat_at(NOON - HOUR + HEARTBEAT * beat);
        const Announcement cleared = next_announcement();
        EXPECT_EQ(cleared.member, "ClearedIssues");
        EXPECT_EQ(cleared.time, NOON - HOUR + HEARTBEAT * beat);
        EXPECT_THAT(cleared.labels, SizeIs(34)); // CB00 to CB32 and CBnn
    }
    EXPECT_THAT(records_in(station().recorded()), SizeIs(records)) << "nothing is due for an hour";
    EXPECT_THAT(pass_times(station().trace()), ElementsAre("12:00:07", "12:00:10", "11:00:10", "11:00:20", "11:00:30"));
    beat_at(NOON + 20);
    EXPECT_GT(records_in(station().recorded()).size(), records);
    for (int beat = 3; beat <= 4; ++beat) {
        beat_at(NOON + HEARTBEAT * beat);
    }
    const Announcement raised = next_announcement();
    EXPECT_EQ(raised.member, "NewIssues") << "no signal in between";
    EXPECT_EQ(raised.time, NOON + 40);
    EXPECT_EQ(station().stop(), 1);
}

TEST_F(Time, SetForwardAYearRunsEachTaskOnce) {
    start_at(NOON + 7);
    station().forget();
    beat_at(NOON + 10 + YEAR);
    EXPECT_THAT(station().trace().messages_with("next_run"), SizeIs(names_of_checks().size()));
    EXPECT_THAT(station().trace().messages_with("temperature: next_run"),
                ElementsAre("temperature: next_run: 12:00:20"));
    station().forget();
    beat_at(NOON + 20 + YEAR);
    EXPECT_THAT(run_times(station().trace(), "temperature"), ElementsAre("12:00:20"));
    EXPECT_THAT(run_times(station().trace(), "wearout"), IsEmpty());
    for (int beat = 3; beat <= 4; ++beat) {
        beat_at(NOON + YEAR + HEARTBEAT * beat);
    }
    EXPECT_EQ(next_announcement().time, NOON + YEAR + 40) << "the fifth sample";
    EXPECT_EQ(station().stop(), 1);
}
