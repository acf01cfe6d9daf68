#pragma once

// The sockets of the journal and of syslog block while nobody reads them. A heartbeat or a termination must
// not wait for that: each wait is bounded, and a socket that was found full is left alone until the next
// heartbeat.

#include <csignal>
#include <ctime>

/// Stands around the first trace of the process, with which the journal library opens its socket. Bounds the
/// waits of that trace and of all later ones to a tenth of a second. To be destroyed before the first thread.
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

    int socket_; ///< the number that the library's socket gets
    timer_t timer_{};
    bool timed_ = false;
    struct sigaction action_before_ {};
    sigset_t mask_before_{};
};

/// Whether the journal is left alone because it has refused a line.
[[nodiscard]] bool journal_is_paused();

/// Takes note of the result of a write to the journal, 0 or a negative error number.
void journal_note_result(int result);

/// Whether syslog takes a message, true also when there is no such socket. The first refusal takes a tenth of
/// a second, those that follow in the same heartbeat no time.
[[nodiscard]] bool syslog_has_room();

/// Ends the pauses: a heartbeat begins, or the daemon ends. Without that they last ten seconds.
void log_sockets_resume();
