// When the network check reads its files, and how it uses the bus.

#include "in_child.h"
#include "network.h"
#include "network_station.h"
#include "process_state.h"

#include <csignal>
#include <cstdint>
#include <gmock/gmock.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <vector>

namespace {

using testing::Contains;
using testing::ElementsAre;
using testing::StartsWith;

constexpr const char *CHECK = "network_check_daemon";

// --- when the files are read

TEST(NetworkCheck, ReadsTwiceThenNoMoreWhileNetworkdIsUnchanged) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("18446744073709551615");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(rig.systemd.total(), 0) << "the first pass makes no call and stores nothing";
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(rig.systemd.count(NETWORKD, CHANGE_TIME), 1);
        EXPECT_FALSE(rig.reads());
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(rig.systemd.count(NETWORKD, CHANGE_TIME), 3);
        EXPECT_EQ(rig.systemd.total(), 3) << "no other call";
        EXPECT_TRUE(network_calls().all_close_on_exec);
    });
}

TEST(NetworkCheck, ReadsOnceWhenNetworkdWasNeverStarted) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("0");
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
    });
}

TEST(NetworkCheck, ReadsAtAnyOtherTimeStampEvenAnEarlierOne) {
    in_child([] {
        BusStation rig;
        EXPECT_TRUE(rig.reads());
        for (const char *time : {"5000000000", "4294967296", "1", "5000000000"}) {
            rig.systemd.change_time(time);
            EXPECT_TRUE(rig.reads()) << time;
            EXPECT_FALSE(rig.reads()) << time;
        }
        // The same low 32 bits.
        rig.systemd.change_time("9294967296");
        EXPECT_TRUE(rig.reads());
    });
}

TEST(NetworkCheck, KeepsWhatItFoundWhileItDoesNotRead) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        rig.wifi("");
        rig.lan("");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.remove("wifi");
        rig.remove("lan");
        mobile_available = 1;
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(lan_available, 0);
        EXPECT_EQ(wifi_available, 1);
        EXPECT_EQ(mobile_available, 1);
        rig.systemd.change_time("8");
        EXPECT_TRUE(rig.reads());
        EXPECT_EQ(lan_available, 1);
        EXPECT_EQ(wifi_available, 0);
        EXPECT_EQ(mobile_available, 0) << "never in use";
    });
}

TEST(NetworkCheck, ReadsInEveryPassWithoutABus) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" "));
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        const char *failed = "bus_default FAILED: ret : -2 (No such file or directory)";
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" ", " ", failed, " ", failed));
    });
}

TEST(NetworkCheck, ReadsInEveryPassWhileThePropertyFails) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.fail(NETWORKD, CHANGE_TIME, "System.Error.EACCES", 2);
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads()) << "the previous time stamp still counts";
        const char *failed = "get_property FAILEd: ret : -13 (Permission denied)";
        EXPECT_THAT(rig.traces.texts_of(CHECK), ElementsAre(" ", " ", " ", failed, " ", failed, " "));
        rig.systemd.obey(std::string("set ") + NETWORKD + " " + CHANGE_TIME + " s 7");
        EXPECT_TRUE(rig.reads()) << "a text is not a number";
    });
}

TEST(NetworkCheck, GivesUpACallWithoutAReply) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.obey("hold");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -110 (Connection timed out)"));
        rig.systemd.obey("release");
        EXPECT_FALSE(rig.reads()) << "the late reply is not used for this call";
    });
}

TEST(NetworkCheck, TracesItsStepsInOrder) {
    in_child([] {
        const Station rig;
        EXPECT_TRUE(rig.reads());
        std::vector<std::string> functions;
        std::string levels;
        for (const CapturedTrace &trace : rig.traces.all()) {
            functions.push_back(trace.function);
            levels += trace.line.substr(0, 3);
            EXPECT_EQ(trace.text, " ");
            EXPECT_EQ(trace.code_file, "CODE_FILE=network.c");
        }
        EXPECT_THAT(functions, ElementsAre(CHECK, "network_check", "network_check_lan", "network_check_wifi",
                                           "network_check_mobile"));
        EXPECT_EQ(levels, "(2)(3)(3)(3)(3)");
    });
}

// --- the bus

TEST(NetworkBus, IsFoundAgainAfterItDied) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
        rig.bus.stop();
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -104 (Connection reset by peer)"));
        EXPECT_TRUE(rig.reads());
        EXPECT_THAT(rig.traces.texts_of(CHECK), Contains(StartsWith("bus_default FAILED: ret : -")));
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads()) << "the same time stamp";
        rig.systemd.change_time("8");
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
    });
}

TEST(NetworkBus, MayDieDuringACall) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        rig.systemd.strike(rig.bus.pid(), SIGKILL, 1);
        EXPECT_TRUE(rig.reads());
        rig.bus.stop();
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads());
    });
}

void expect_nothing_unread() {
    sd_bus *bus = nullptr;
    ASSERT_GE(sd_bus_default_system(&bus), 0);
    std::uint64_t unread = 99;
    EXPECT_EQ(sd_bus_get_n_queued_read(bus, &unread), 0);
    EXPECT_EQ(unread, 0U);
    sd_bus_unref(bus);
}

TEST(NetworkBus, LeaksNothingBetweenPasses) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        const auto before = open_descriptors();
        for (int pass = 0; pass < 10'000; ++pass) {
            ASSERT_FALSE(rig.reads());
        }
        EXPECT_EQ(open_descriptors(), before);
        // No reference has leaked: otherwise the library would return the dead connection again.
        rig.bus.stop();
        EXPECT_TRUE(rig.reads());
        rig.bus.start();
        rig.systemd.connect();
        EXPECT_FALSE(rig.reads());
        EXPECT_EQ(open_descriptors(), before);
    });
}

TEST(NetworkBus, DropsUnrelatedMessages) {
    in_child([] {
        BusStation rig;
        rig.systemd.change_time("7");
        rig.systemd.obey("noise 50");
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_FALSE(rig.reads());
        expect_nothing_unread();
    });
}

/// A socket that accepts connections and never answers.
class SilentSocket {
  public:
    explicit SilentSocket(const std::string &path) : socket_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        EXPECT_EQ(bind(socket_.get(), reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        EXPECT_EQ(listen(socket_.get(), 8), 0);
    }

  private:
    Descriptor socket_;
};

TEST(NetworkBus, IsGivenUpWhenItDoesNotAuthenticate) {
    in_child([] {
        const Station rig;
        const SilentSocket bus(rig.folder / "silent");
        use_system_bus("unix:path=" + (rig.folder / "silent"));
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.reads());
        EXPECT_TRUE(rig.traces.has(CHECK, "get_property FAILEd: ret : -110 (Connection timed out)"));
        // It checks for signals every 50 ms, for 5 s.
        EXPECT_LE(network_calls().processed, 150) << "it waits instead of polling";
    });
}

} // namespace
