#pragma once

// The processes that the bus benchmark compares: the daemon's bus service, and a minimal server that replies with
// the same bytes.

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

enum class Server { daemon, daemon_without_journal, bare, bare_with_traces };

inline constexpr int ALL_ISSUES = 34;
inline constexpr const char *BENCH_PATH = "/com/corvana/Monitoring1";
inline constexpr const char *BENCH_INTERFACE = "com.corvana.State2.Issues";

/// A child process, killed by the destructor.
class Process {
  public:
    /// Starts a program with pipes to its stdin and from its stdout, which only `read_line` reads.
    explicit Process(std::vector<std::string> command);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void kill();
    void write_line(const std::string &line) const;
    /// The next line of its stdout; "" at the end.
    [[nodiscard]] std::string read_line() const;
    /// Its processor time so far, in nanoseconds.
    [[nodiscard]] long processor_time() const;

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

/// The command that runs this program as a server named `name` with `issues` raised issues. The daemon's server
/// runs one pass, which raises or clears an issue, for each line "pass" and prints the time of its end.
std::vector<std::string> server_command(Server kind, int issues, const std::string &name);

/// If the arguments are those of server_command, serves and does not return.
void serve_if_asked(int argc, char **argv);

/// Nanoseconds of the monotonic clock, comparable between processes.
long monotonic_time();
