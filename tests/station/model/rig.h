#pragma once

// The real daemon on a station with a private bus and a fake systemd: takes the model's inputs and reports the
// output in the model's format.

#include "board_state.h"
#include "fake_systemd.h"
#include "station.h"

#include <memory>

namespace model {

struct RigSetup {
    std::vector<Input> inputs; ///< the board's contents
    std::vector<std::string> arguments;
    std::string old_log; ///< an existing status log
    std::int64_t clock = 0;
    bool has_bus = true;
    std::string load_logger; ///< the program that takes its place
};

class Rig {
  public:
    explicit Rig(const RigSetup &setup);
    ~Rig();
    Rig(const Rig &) = delete;
    Rig &operator=(const Rig &) = delete;

    /// Starts the daemon and waits for its first pass and its name on the bus.
    void start();
    void apply(const Input &input);
    /// Sets the clock, sends the heartbeat and waits for the end of the pass.
    void beat(std::int64_t now);
    /// Stops the daemon; returns its exit status.
    int stop();

    [[nodiscard]] pid_t pid() const { return station_.pid(); }

    // Each returns the output since its last call.
    std::vector<std::string> sentences();
    /// Waits for at least `count` signals.
    std::vector<std::string> signals(std::size_t count);
    /// Waits for at least `count` calls, and for the call of every running child.
    std::vector<std::string> started(std::size_t count);

    [[nodiscard]] std::vector<std::string> listing();
    [[nodiscard]] std::string availability(const std::string &word, bool enable);
    /// The status log from that byte on; a note if it is shorter.
    [[nodiscard]] std::string log_from(std::size_t offset) const;
    /// The older logs, uncompressed, by number.
    [[nodiscard]] std::map<int, std::string> generations() const;
    /// Waits for the end of all load loggers; false when some still run.
    [[nodiscard]] bool load_loggers_end() const;

  private:
    /// A system bus, reached by the daemon through a link, so that the listeners are connected first.
    class Bus {
      public:
        explicit Bus(const std::string &folder);
        [[nodiscard]] std::string variable() const { return "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + door_; }
        void lose();
        /// Restarts the bus and reconnects all clients.
        void come_back();

        FakeSystemd &systemd() { return systemd_; }
        BusClient &caller() { return *caller_; }
        BusClient &listener() { return *listener_; }

      private:
        void connect_clients();
        void open();

        std::string socket_;
        std::string door_;
        PrivateBus bus_;
        FakeSystemd systemd_{bus_};
        std::unique_ptr<BusClient> caller_;
        std::unique_ptr<BusClient> listener_;
    };
    struct LoadLogger {
        pid_t pid;
        std::string issue;
        Descriptor pidfd;
    };

    void put_file(const Input &input) const;
    void put_folder(const std::string &path) const;
    void take_away(const std::string &path) const;
    void put_unit(const Input &input);
    void end_load_logger(const std::string &issue);
    void lose_generation(int number) const;
    [[nodiscard]] std::vector<pid_t> children() const;
    bool read_call();
    void await_rest() const;

    BoardState board_;
    Station station_;
    std::unique_ptr<Bus> bus_;
    std::vector<std::string> arguments_;
    Descriptor calls_; ///< the load loggers write their calls here
    std::string unread_;
    std::vector<LoadLogger> loggers_;
    std::vector<std::string> told_;
    std::vector<std::string> signals_;
};

inline constexpr const char *LOG = "/var/lib/evse/vigmond/logfile";

} // namespace model
