// The checks of a path that is switched off and on again.

#include "issue_records.h"
#include "labels_listed.h"
#include "network_paths.h"
#include "station_bus.h"
#include "station_life.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

using testing::ElementsAre;
using testing::ElementsAreArray;
using testing::IsEmpty;

namespace {

struct PathCase {
    LinkCheck check;
    const char *settings;
    Content on;
    Content off;
};

void PrintTo(const PathCase &path, std::ostream *out) { *out << path.check.issue; }

std::vector<PathCase> path_cases() {
    std::vector<PathCase> cases;
    for (const LinkCheck &check : lan_checks()) {
        cases.push_back({check, LAN_SETTINGS, "[Link]\nUnmanaged=no\n", "[Link]\nUnmanaged=yes\n"});
    }
    for (const LinkCheck &check : wifi_checks()) {
        cases.push_back({check, WIFI_SETTINGS, "on", "{\"enabled\":true}"});
    }
    return cases;
}

} // namespace

/// Switches a path as on a station: writes its file, then restarts networkd.
class SwitchedPath : public testing::TestWithParam<PathCase> {
  protected:
    SwitchedPath() {
        station.environment.emplace_back("TZ=UTC0");
        station.start();
        client.wait_for_owner(SERVICE_NAME);
        station.forget(); // the sentences about missing services
    }

    void live(const Content &content, int count) {
        put(station, check.file, content);
        samples(&station, count, check.period);
    }
    void switch_path(bool on) {
        put(station, GetParam().settings, on ? GetParam().on : GetParam().off);
        bus.systemd.change_time(std::to_string(++change_time_));
    }
    /// The check's records since the last call.
    std::vector<std::string> new_records() {
        const std::vector<std::string> all = records_of(station, check.issue);
        std::vector<std::string> fresh(all.begin() + static_cast<std::ptrdiff_t>(seen_), all.end());
        seen_ = all.size();
        return fresh;
    }

    const LinkCheck &check = GetParam().check;
    Station station{connected_board()};
    StationBus bus{&station};
    BusClient client{bus.bus};

  private:
    int change_time_ = 100;
    std::size_t seen_ = 0;
};

TEST_P(SwitchedPath, KeepsTheCountOfItsFailingSamples) {
    const int before = check.delay / 2;
    live(check.bad, before);
    new_records();
    switch_path(false);
    live(check.bad, 30);
    live(check.good, 30);
    live(check.bad, 30);
    EXPECT_THAT(new_records(), IsEmpty());
    switch_path(true);
    live(check.bad, check.delay - before - 1);
    EXPECT_THAT(sentences_of(station), IsEmpty());
    EXPECT_THAT(labels_listed(client), IsEmpty());
    live(check.bad, 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised));
    EXPECT_THAT(labels_listed(client), ElementsAre(check.issue));
    std::vector<std::string> expected(static_cast<std::size_t>(check.delay - before - 1), "OK " + check.bad_value);
    expected.push_back("FAIL " + check.bad_value);
    EXPECT_THAT(new_records(), ElementsAreArray(expected));
}

TEST_P(SwitchedPath, KeepsItsIssueUntilItIsSeenHealthy) {
    live(check.bad, check.delay);
    EXPECT_THAT(labels_listed(client), ElementsAre(check.issue));
    live(check.good, check.delay / 2);
    new_records();
    switch_path(false);
    live(check.good, 30);
    live(check.bad, 30);
    EXPECT_THAT(new_records(), IsEmpty());
    EXPECT_THAT(labels_listed(client), ElementsAre(check.issue));
    switch_path(true);
    live(check.good, check.delay - check.delay / 2 - 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised));
    EXPECT_THAT(labels_listed(client), ElementsAre(check.issue));
    live(check.good, 1);
    EXPECT_THAT(sentences_of(station), ElementsAre(check.raised, check.cleared));
    EXPECT_THAT(labels_listed(client), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Checks, SwitchedPath, testing::ValuesIn(path_cases()),
                         [](const testing::TestParamInfo<PathCase> &given) { return given.param.check.issue; });
