#pragma once

// A simulated station: the real daemon on a faked board, with a clock that only the test moves. Every operation
// returns when the daemon's own output shows that it is done; nothing sleeps. A daemon that hangs or ends
// unexpectedly ends the test with a message that names the awaited event and the last traces.

#include "board.h"
#include "board_folder.h"
#include "capture.h"
#include "rig_process.h"
#include "scratch_folder.h"
#include "trace_line.h"

#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <sys/resource.h>
#include <vector>

/// The result of a program that ran to its end.
struct Outcome {
    int status; ///< or the negative signal number
    std::string out;
    std::string err;
};

class Station {
  public:
    explicit Station(Board board = Board());
    /// Terminates a daemon that still runs and checks that it ends correctly.
    ~Station();
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    // Start parameters of the programs; set before the start.
    std::string program; ///< the daemon
    std::string argv0 = "vigmond";
    std::vector<std::string> environment; ///< "NAME=value"
    mode_t umask = 022;
    rlim_t file_size = RLIM_INFINITY;         ///< the limit of a file's size
    std::map<std::string, std::string> shown; ///< folders of this machine and their paths inside
    StationFault fault{};
    bool uses_disk = false;    ///< their syncs reach this machine's disk, which is slow
    bool reads_journal = true; ///< may change at any time; unread records stay in the socket
    bool reads_syslog = true;
    std::string note; ///< added to the message of a rig failure

    /// Starts the daemon and waits for the end of its first pass.
    void start(const std::vector<std::string> &arguments = {"-D"});
    /// Starts the daemon without waiting.
    void launch(const std::vector<std::string> &arguments);
    /// Runs another program on the same board, in parallel with any daemon, until it ends.
    Outcome run(const std::vector<std::string> &arguments);
    /// Like run(), for a second daemon that is terminated after its first pass.
    Outcome run_one_pass(const std::vector<std::string> &arguments);

    /// Advances the clock, sends the heartbeat and waits for the end of the pass.
    void step(std::int64_t seconds = 10);
    /// `count` heartbeats, ten seconds apart.
    void heartbeats(int count);
    /// Sends a signal to the waiting daemon and waits until it waits again.
    void signal(int signo);
    /// Sends a signal without waiting.
    void send(int signo) const { daemon().send(signo); }
    /// Moves the clock forward or back only.
    void advance(std::int64_t seconds);
    void set_clock(std::int64_t seconds);
    [[nodiscard]] std::int64_t clock() const;

    /// The number of times the daemon has started its wait.
    [[nodiscard]] unsigned waits() const { return daemon().page().waits.load(); }
    /// Waits until the daemon has started its wait more than `count` times.
    void await_wait_after(unsigned count);
    /// Waits for a trace of `function` after the last trace awaited so far.
    TraceLine await_trace(std::string_view function);
    /// Reads output until `done`; the message of a timeout names `what`.
    void await(const std::string &what, const std::function<bool()> &done);
    /// Waits for the daemon's end; its exit status or the negative signal number.
    int await_exit();
    /// Terminates the daemon and waits for its end.
    int stop();

    /// The daemon's stderr: the trace, with -D.
    [[nodiscard]] TraceLog &trace() { return daemon().err(); }
    /// Drops the traces and records so far.
    void forget();
    [[nodiscard]] const std::string &out() const { return daemon().out(); }
    [[nodiscard]] pid_t pid() const { return daemon().pid(); }
    [[nodiscard]] bool is_running() const { return daemon_ != nullptr && !daemon_->status(); }
    [[nodiscard]] const std::vector<JournalRecord> &journal() const { return journal_; }
    [[nodiscard]] const std::vector<SyslogRecord> &syslog() const { return syslog_; }
    [[nodiscard]] const StationTimer &timer() const { return daemon().page().timer; }
    /// The number of calls so far of the kind in `fault`.
    [[nodiscard]] unsigned calls() const { return daemon().page().calls.load(); }
    [[nodiscard]] StationMmc &emmc() { return daemon().page().mmc; }
    void disk(const std::string &path, const Disk &answer) { put_disk(&daemon().page(), path, answer); }

    /// The board's files, also while the daemon runs.
    [[nodiscard]] const BoardFolder &files() const { return folder_; }
    /// The content of a file of the board; empty for a missing one.
    [[nodiscard]] std::string read(const std::string &path) const { return read_file(folder_.host_path(path)); }
    void temperature(int millidegrees) const;

  private:
    [[nodiscard]] RigProcess &daemon() const;
    [[nodiscard]] Launch launch_of(const std::vector<std::string> &arguments) const;
    [[nodiscard]] Sandbox sandbox() const;
    void drain();
    Outcome await_end(RigProcess *process);
    void await(RigProcess *other, const std::string &what, const std::function<bool()> &done);
    void poll_all(const RigProcess *other, int milliseconds) const;
    [[noreturn]] void give_up(RigProcess *process, const std::string &text);

    ScratchFolder scratch_;
    Board board_;
    BoardFolder folder_;
    DatagramSocket journal_socket_;
    DatagramSocket syslog_socket_;
    std::vector<JournalRecord> journal_;
    std::vector<SyslogRecord> syslog_;
    std::unique_ptr<RigProcess> daemon_;
    std::size_t awaited_ = 0; ///< traces awaited so far
};

/// A FIFO in place of a file: a pass that reads it blocks until release().
class HeldFile {
  public:
    HeldFile(const Station &station, std::string path);
    /// Ends the read with this content and restores a regular file that contains it.
    void release(const std::string &content) const;

  private:
    const BoardFolder &files_;
    std::string path_;
    Descriptor fifo_; // open for reading and writing, so that no side waits for the other to open it
};
