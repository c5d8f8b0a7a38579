/* process.h - a program under test. What it prints is recorded from its first line.
 *
 * Log texts are compared with a line's message, which is what follows the prefix "[program|pid] {file:line} "; a line
 * without the prefix is its own message. In an expected text "*" stands for any characters. The recording is read from
 * a cursor, which moves past each line that was expected. The lines of standard output and standard error stand in the
 * order in which they were read, which may differ from that of printing. For the test's own thread only. */
#pragma once

#include <condition_variable>
#include <csignal>
#include <iosfwd>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <thread>
#include <vector>

#include "harness/texts.h"
#include "harness/wait.h"

using Environment = std::map<std::string, std::string>;

struct Exit {
    int status = 0;
    int signal = 0;  // that killed it, or 0
    bool operator==(const Exit &) const = default;
};
std::ostream &operator<<(std::ostream &out, const Exit &exit);

class Process {
  public:
    /* The program's environment is `environment`, the search path and the settings of sanitizers and coverage. */
    Process(Texts command, Environment environment);
    ~Process();  // kills the program if it still runs

    /* Waits for these messages in this order; others may stand between them. */
    void expect_log(const Texts &messages, Where where = Where::current());

    /* Waits for `fence`, which must come, and fails when `message` stands before it. */
    void expect_no_log_before(std::string_view message, std::string_view fence, Where where = Where::current());

    /* Waits for `fence` and gives the messages from the cursor up to it, the fence excluded. */
    Texts log_until(std::string_view fence, Where where = Where::current());

    /* The cursor back to the first line; this process. */
    Process &rewind() { return cursor_ = 0, *this; }

    /* All that was printed on STDOUT_FILENO or STDERR_FILENO until now; after wait_exit, all that it printed. */
    std::string text(int stream);

    /* The last lines that it has not given before. They are printed behind each failure. */
    std::string news();

    /* The process id stays reserved as long as this object lives, so that a signal cannot reach another process. */
    pid_t pid() const { return pid_; }
    void send_signal(int number) { kill(pid_, number); }
    Exit wait_exit(Where where = Where::current());

    /* Sends SIGTERM and expects status 0, unless the test has called wait_exit or failed. Records a failure,
     * never throws. */
    void expect_orderly_end();

    /* Fails when a line is a complaint of GLib, CZMQ, a sanitizer or assert. */
    void expect_no_complaints();

  private:
    struct Line {
        int stream;
        std::string text;
    };

    void record(int output, int errors);
    void read_lines(int descriptor, int stream);
    std::optional<Exit> exit_in_time();
    size_t wait_for(std::string_view message, const Where &where);  // the line's index

    std::string name_;
    pid_t pid_ = -1;
    std::mutex mutex_;
    std::condition_variable changed_;
    std::vector<Line> lines_;   // guarded by mutex_
    std::optional<Exit> exit_;  // guarded by mutex_; set after the last line
    size_t cursor_ = 0;
    size_t told_ = 0;  // guarded by mutex_; the end of the last news
    bool exit_seen_ = false;
    std::thread reader_;
};
