#pragma once

// A simulated station: the real daemon on a faked board, under a clock that stands still until it is
// turned. Every operation returns when the daemon has done what was asked, as the daemon itself shows;
// nothing sleeps. What hangs, or ends unasked, ends the test with a word on what was awaited and the last
// traces.

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

/// What a program that ran to its end has left.
struct Outcome {
    int status; ///< the negative number of the signal that ended it
    std::string out;
    std::string err;
};

class Station {
  public:
    explicit Station(Board board = Board());
    /// Terminates a daemon that still runs and sees to it that it ends as it should.
    ~Station();
    Station(const Station &) = delete;
    Station &operator=(const Station &) = delete;

    // How the programs are started; set before the start.
    std::string program; ///< the daemon
    std::string argv0 = "vigmond";
    std::vector<std::string> environment; ///< "NAME=value"
    mode_t umask = 022;
    rlim_t file_size = RLIM_INFINITY;         ///< no file of theirs grows beyond it
    std::map<std::string, std::string> shown; ///< folders of this machine and where the programs see them
    StationFault fault{};
    bool uses_disk = false;    ///< what they synchronise is written to this machine's disk, which takes its time
    bool reads_journal = true; ///< changed at any time; what is not read stays in its socket
    bool reads_syslog = true;
    std::string note; ///< what a failure of the rig is reported with

    /// Starts the daemon and awaits the end of its first pass.
    void start(const std::vector<std::string> &arguments = {"-D"});
    /// Starts the daemon and awaits nothing.
    void launch(const std::vector<std::string> &arguments);
    /// Runs a program of its own on the same board, beside the daemon if one runs, until it ends.
    Outcome run(const std::vector<std::string> &arguments);
    /// The same for a second daemon that is terminated after its first pass.
    Outcome run_one_pass(const std::vector<std::string> &arguments);

    /// Turns the clock, sends the heartbeat and awaits the end of the pass.
    void step(std::int64_t seconds = 10);
    /// `count` heartbeats, ten seconds apart.
    void heartbeats(int count);
    /// Sends a signal to the waiting daemon and awaits that it waits again.
    void signal(int signo);
    /// Sends a signal and awaits nothing.
    void send(int signo) const { daemon().send(signo); }
    /// Turns the clock on, or back, and does nothing else.
    void advance(std::int64_t seconds);
    void set_clock(std::int64_t seconds);
    [[nodiscard]] std::int64_t clock() const;

    /// How often the daemon has entered its wait.
    [[nodiscard]] unsigned waits() const { return daemon().page().waits.load(); }
    /// Awaits that it has entered its wait more than `count` times.
    void await_wait_after(unsigned count);
    /// Awaits a trace of `function` that comes, or came, after the last that was awaited in any way.
    TraceLine await_trace(std::string_view function);
    /// Takes in what comes until `done`; `what` is told if that never comes.
    void await(const std::string &what, const std::function<bool()> &done);
    /// Awaits the daemon's end: its exit status, or the negative number of the signal that ended it.
    int await_exit();
    /// Terminates the daemon and awaits its end.
    int stop();

    /// The daemon's stderr, which with -D is the trace.
    [[nodiscard]] TraceLog &trace() { return daemon().err(); }
    /// Drops the traces and records so far.
    void forget();
    [[nodiscard]] const std::string &out() const { return daemon().out(); }
    [[nodiscard]] pid_t pid() const { return daemon().pid(); }
    [[nodiscard]] bool is_running() const { return daemon_ != nullptr && !daemon_->status(); }
    [[nodiscard]] const std::vector<JournalRecord> &journal() const { return journal_; }
    [[nodiscard]] const std::vector<SyslogRecord> &syslog() const { return syslog_; }
    [[nodiscard]] const StationTimer &timer() const { return daemon().page().timer; }
    /// Calls so far of the kind that `fault` names.
    [[nodiscard]] unsigned calls() const { return daemon().page().calls.load(); }
    [[nodiscard]] StationMmc &emmc() { return daemon().page().mmc; }
    void disk(const std::string &path, const Disk &answer) { put_disk(&daemon().page(), path, answer); }

    /// The board's files, also while the daemon runs.
    [[nodiscard]] const BoardFolder &files() const { return folder_; }
    /// The content of a file of the board; empty when there is none.
    [[nodiscard]] std::string read(const std::string &path) const { return read_file(folder_.host_path(path)); }
    void temperature(int millidegrees) const;

  private:
    [[nodiscard]] RigProcess &daemon() const;
    [[nodiscard]] Launch launch_of(const std::vector<std::string> &arguments) const;
    [[nodiscard]] Sandbox sandbox() const;
    void drain();
    Outcome await_end(RigProcess *process);
    void await(RigProcess *beside, const std::string &what, const std::function<bool()> &done);
    void poll_all(const RigProcess *beside, int milliseconds) const;
    [[noreturn]] void give_up(RigProcess *process, const std::string &text);

    ScratchFolder scratch_;
    Board board_;
    BoardFolder folder_;
    DatagramSocket journal_socket_;
    DatagramSocket syslog_socket_;
    std::vector<JournalRecord> journal_;
    std::vector<SyslogRecord> syslog_;
    std::unique_ptr<RigProcess> daemon_;
    std::size_t awaited_ = 0; ///< traces that have been awaited
};

/// A FIFO in a file's place: the pass that reads it is held there until it is released.
class HeldFile {
  public:
    HeldFile(const Station &station, std::string path);
    /// Lets the read go on with this content, which is then that of a usual file again.
    void release(const std::string &content) const;

  private:
    const BoardFolder &files_;
    std::string path_;
    Descriptor fifo_; // open for both, so that nobody waits for the other side to open it
};
