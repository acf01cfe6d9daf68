#pragma once

// The real daemon on a station, with a bus and systemd of its own: the inputs are done to it, and what it
// shows is told in the words of the model.

#include "board_state.h"
#include "fake_systemd.h"
#include "station.h"

#include <memory>

namespace model {

struct RigSetup {
    std::vector<Input> inputs; ///< what the board consists of
    std::vector<std::string> arguments;
    std::string old_log; ///< a status log that is already there
    std::int64_t clock = 0;
    bool has_bus = true;
    std::string load_logger; ///< the program in its place
};

class Rig {
  public:
    explicit Rig(const RigSetup &setup);
    ~Rig();
    Rig(const Rig &) = delete;
    Rig &operator=(const Rig &) = delete;

    /// Starts the daemon and awaits its first pass, and that it is on the bus.
    void start();
    void apply(const Input &input);
    /// Sets the clock and awaits the pass.
    void beat(std::int64_t now);
    /// Ends the daemon; its status.
    int stop();

    [[nodiscard]] pid_t pid() const { return station_.pid(); }

    // What it has shown since it was last asked.
    std::vector<std::string> sentences();
    /// Waits for `count` signals if they have not come yet.
    std::vector<std::string> signals(std::size_t count);
    /// Waits for `count` calls, and for that of every child there is.
    std::vector<std::string> started(std::size_t count);

    [[nodiscard]] std::vector<std::string> listing();
    [[nodiscard]] std::string availability(const std::string &word, bool enable);
    /// The status log from that byte on; a word about it when it is shorter.
    [[nodiscard]] std::string log_from(std::size_t offset) const;
    /// The older logs, unpacked, by their numbers.
    [[nodiscard]] std::map<int, std::string> generations() const;
    /// Whether all load loggers are gone, awaiting their end.
    [[nodiscard]] bool load_loggers_end() const;

  private:
    /// A system bus, to whose socket the daemon gets by another name; those who are to hear it come first.
    class Bus {
      public:
        explicit Bus(const std::string &folder);
        [[nodiscard]] std::string variable() const { return "DBUS_SYSTEM_BUS_ADDRESS=unix:path=" + door_; }
        void lose();
        /// Back, with all on it who have been.
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
    Descriptor calls_; ///< in which the load loggers tell how they were called
    std::string unread_;
    std::vector<LoadLogger> loggers_;
    std::vector<std::string> told_;
    std::vector<std::string> signals_;
};

inline constexpr const char *LOG = "/var/lib/evse/vigmond/logfile";

} // namespace model
