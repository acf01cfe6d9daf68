#pragma once

// Writes to the sockets of the journal and of syslog block while their queues are full. A heartbeat or a
// termination must not hang on that: each wait is bounded, and after a refusal a socket is not used until the
// next heartbeat.

#include <csignal>
#include <ctime>

/// Scope for the first trace of the process, during which the journal library opens its socket. Limits the wait
/// of this and every later trace to 100 ms. Must end before the first thread is created.
class JournalOpening {
  public:
    JournalOpening();
    ~JournalOpening();
    JournalOpening(const JournalOpening &) = delete;
    JournalOpening &operator=(const JournalOpening &) = delete;
    JournalOpening(JournalOpening &&) = delete;
    JournalOpening &operator=(JournalOpening &&) = delete;

  private:
    void start_timer();
    void stop_timer();

    int socket_; ///< the expected descriptor of the library's socket
    timer_t timer_{};
    bool timed_ = false;
    struct sigaction action_before_ {};
    sigset_t mask_before_{};
};

/// Whether the journal is not used for now because it refused a line.
[[nodiscard]] bool journal_is_paused();

/// Records the result of a write to the journal, 0 or a negative errno. A failure starts a pause.
void journal_note_result(int result);

/// Whether a message to syslog would not block; also true without a syslog socket. The first refusal takes
/// 100 ms, later ones in the same heartbeat return at once.
[[nodiscard]] bool syslog_has_room();

/// Ends the pauses, which otherwise last ten seconds. Called at the start of each heartbeat and at the end of the
/// daemon.
void log_sockets_resume();
