// The bus service compared with a minimal libdbus server on the same bus, in alternating rounds: the round trip of
// a GetListing call and the server's processor time, with no, one and all issues raised. Then the delay of a signal
// after its pass, the time to answer a hundred calls, and the processor time of the daemon without a bus.

#include "bus_servers.h"
#include "dbus-srv/bus_handle.h"
#include "journal_sink.h"
#include "private_bus.h"
#include "processors.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr int ROUNDS = 25;
constexpr int CALLS = 400; // per round
constexpr std::array<int, 3> ISSUES{0, 1, ALL_ISSUES};
constexpr std::array<Server, 4> KINDS{Server::daemon, Server::daemon_without_journal, Server::bare,
                                      Server::bare_with_traces};

/// The benchmark's own connection.
DBusConnection *client = nullptr;

BusMessage listing_call(const std::string &name) {
    return BusMessage(dbus_message_new_method_call(name.c_str(), BENCH_PATH, BENCH_INTERFACE, "GetListing"));
}

BusMessage call(const std::string &name) {
    const BusMessage message = listing_call(name);
    return BusMessage(dbus_connection_send_with_reply_and_block(client, message.get(), -1, nullptr));
}

void wait_for_name(const std::string &name) {
    while (dbus_bus_name_has_owner(client, name.c_str(), nullptr) == 0) {
        usleep(1000);
    }
}

struct Contender {
    Contender(Server server, int number_of_issues)
        : kind(server), issues(number_of_issues),
          name("bench.server" + std::to_string(static_cast<int>(server)) + "_" + std::to_string(number_of_issues)),
          process(std::make_unique<Process>(server_command(server, number_of_issues, name))) {
        wait_for_name(name);
    }

    Server kind;
    int issues;
    std::string name;
    std::unique_ptr<Process> process;
    double round_trip = std::numeric_limits<double>::infinity(); ///< nanoseconds, fastest round
    double processor = std::numeric_limits<double>::infinity();
};

void run_round(Contender *contender) {
    const long used = contender->process->processor_time();
    const long start = monotonic_time();
    for (int i = 0; i < CALLS; ++i) {
        call(contender->name);
    }
    const auto taken = static_cast<double>(monotonic_time() - start);
    contender->round_trip = std::min(contender->round_trip, taken / CALLS);
    contender->processor =
        std::min(contender->processor, static_cast<double>(contender->process->processor_time() - used) / CALLS);
}

std::string body_of(const std::string &name) {
    const BusMessage reply = call(name);
    char *bytes = nullptr;
    int size = 0;
    if (!reply || dbus_message_marshal(reply.get(), &bytes, &size) == 0) {
        return "no answer";
    }
    std::uint32_t length = 0; // of the body: the message's second word
    std::memcpy(&length, bytes + sizeof length, sizeof length);
    std::string body(bytes + size - length, length);
    dbus_free(bytes);
    return body;
}

void print_ratio(const char *what, const Contender &daemon, const Contender &bare) {
    std::printf("%2d issues, %-30s round trip %6.1f / %6.1f us = %.3f   processor %5.1f / %5.1f us = %.3f%s\n",
                daemon.issues, what, daemon.round_trip / 1000, bare.round_trip / 1000,
                daemon.round_trip / bare.round_trip, daemon.processor / 1000, bare.processor / 1000,
                daemon.processor / bare.processor,
                body_of(daemon.name) == body_of(bare.name) ? "" : "   (NOT THE SAME BYTES)");
}

/// In the order of KINDS.
void print_ratios(const Contender *contenders) {
    print_ratio("over the bare server:", contenders[0], contenders[2]);
    print_ratio("over the one with traces:", contenders[0], contenders[3]);
    print_ratio("without journal, over bare:", contenders[1], contenders[2]);
}

void compare_listings() {
    std::vector<Contender> contenders;
    for (const int issues : ISSUES) {
        for (const Server kind : KINDS) {
            contenders.emplace_back(kind, issues);
        }
    }
    for (int round = 0; round < ROUNDS; ++round) {
        for (Contender &contender : contenders) {
            run_round(&contender);
        }
    }
    for (std::size_t first = 0; first < contenders.size(); first += KINDS.size()) {
        print_ratios(&contenders[first]);
    }
}

void print_times(const char *what, std::vector<long> *times) {
    std::sort(times->begin(), times->end());
    const auto at = [times](std::size_t percent) {
        return static_cast<double>((*times)[(times->size() - 1) * percent / 100]) / 1000;
    };
    std::printf("%s: median %.1f us, 99 of 100 within %.1f us, longest %.1f us (%zu)\n", what, at(50), at(99), at(100),
                times->size());
}

/// Waits for the daemon's next signal.
void await_signal() {
    for (;;) {
        while (const BusMessage message{dbus_connection_pop_message(client)}) {
            if (dbus_message_has_interface(message.get(), BENCH_INTERFACE) != 0) {
                return;
            }
        }
        dbus_connection_read_write(client, -1);
    }
}

void measure_signals() {
    constexpr int passes = 2000;
    const Contender daemon(Server::daemon, 0);
    dbus_bus_add_match(client, "type='signal',interface='com.corvana.State2.Issues'", nullptr);
    std::vector<long> times;
    for (int pass = 0; pass < passes; ++pass) {
        daemon.process->write_line("pass");
        await_signal();
        const long received = monotonic_time();
        times.push_back(received - std::stol(daemon.process->read_line()));
        usleep(static_cast<useconds_t>(pass % 10 * 100)); // varies, to hit every phase of the listener's wait
    }
    print_times("from the end of a pass to its signal at a client", &times);
}

void measure_bursts() {
    constexpr int bursts = 100;
    constexpr int calls = 100;
    const Contender daemon(Server::daemon, 0);
    std::vector<long> times;
    for (int burst = 0; burst < bursts; ++burst) {
        const long start = monotonic_time();
        for (int i = 0; i < calls; ++i) {
            dbus_connection_send(client, listing_call(daemon.name).get(), nullptr);
        }
        for (int answers = 0; answers < calls;) {
            dbus_connection_read_write(client, -1);
            while (const BusMessage message{dbus_connection_pop_message(client)}) {
                answers += dbus_message_get_type(message.get()) == DBUS_MESSAGE_TYPE_METHOD_RETURN ? 1 : 0;
            }
        }
        times.push_back(monotonic_time() - start);
    }
    print_times("from a hundred calls at once to the last answer", &times);
}

void measure_absence(PrivateBus *bus) {
    constexpr unsigned seconds = 5;
    const Contender daemon(Server::daemon, 0);
    dbus_connection_set_exit_on_disconnect(client, FALSE);
    const long before = daemon.process->processor_time();
    bus->stop();
    sleep(seconds);
    const long used = daemon.process->processor_time() - before;
    std::printf("in the first %u s without a bus: %.1f ms of processor time, %.3f %%\n", seconds,
                static_cast<double>(used) / 1e6, static_cast<double>(used) / seconds / 1e7);
}

} // namespace

int main(int argc, char **argv) {
    serve_if_asked(argc, argv);
    leave_last_processor(); // all processes share one: the scheduler's placement would change the round trip
    start_journal_sink();
    PrivateBus bus;
    setenv("DBUS_SYSTEM_BUS_ADDRESS", bus.address().c_str(), 1);
    client = dbus_bus_get(DBUS_BUS_SYSTEM, nullptr);
    if (client != nullptr) {
        compare_listings();
        measure_signals();
        measure_bursts();
        measure_absence(&bus);
    }
    return client == nullptr ? 1 : 0;
}
