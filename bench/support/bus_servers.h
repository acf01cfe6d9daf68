#pragma once

// The processes between which the bus bench measures: the daemon's bus service, and the barest server that
// answers with the same bytes.

#include <ctime>
#include <string>
#include <sys/types.h>
#include <vector>

enum class Server { daemon, daemon_without_journal, bare, bare_with_traces };

inline constexpr int ALL_ISSUES = 34;
inline constexpr const char *BENCH_PATH = "/com/corvana/Monitoring1";
inline constexpr const char *BENCH_INTERFACE = "com.corvana.State2.Issues";

/// A process of the bench's own, ended with the object.
class Process {
  public:
    /// Starts a program with pipes to its stdin and from its stdout, which nobody reads but `read_line`.
    explicit Process(std::vector<std::string> command);
    ~Process();
    Process(const Process &) = delete;
    Process &operator=(const Process &) = delete;

    void kill();
    void write_line(const std::string &line) const;
    /// The next line of its stdout; "" at the end.
    [[nodiscard]] std::string read_line() const;
    /// The processor time that it has used, in nanoseconds.
    [[nodiscard]] long processor_time() const;

  private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
};

/// The command that makes this program a server with `issues` raised issues under a name of its own.
/// The daemon's obeys "pass", one pass that raises or clears an issue, by writing the time of its end.
std::vector<std::string> server_command(Server kind, int issues, const std::string &name);

/// When the arguments are those of server_command, serves and does not return.
void serve_if_asked(int argc, char **argv);

/// Nanoseconds of the clock that all processes share.
long monotonic_time();
