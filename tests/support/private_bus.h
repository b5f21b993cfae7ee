// SPDX-License-Identifier: MIT
#pragma once

#include <spawn.h>
#include <sys/types.h>

#include <chrono>
#include <csignal>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

// Test fixtures that run the real message bus and the real velad as child
// processes, so that tests reach the library only through the bus.
//
// Nothing here sleeps: every wait is on an event (a line on a pipe, a process
// ending) with a generous deadline, so a broken child fails the test instead of
// hanging it. None of these classes is thread-safe; use each from one thread.
namespace vela::testing {

// How a child process ended: its exit code, or the signal that ended it.
struct ExitStatus {
  int code = 0;    // the exit code when `signal` is 0
  int signal = 0;  // the signal that ended the process, or 0

  friend bool operator==(const ExitStatus&, const ExitStatus&) = default;
  std::string toString() const;  // "exit code 3", "signal 9 (Killed)"
};
void PrintTo(const ExitStatus& status, std::ostream* os);  // GoogleTest's printer

// Deadlines for children to come up and to go away. Generous, because
// sanitized children start slowly on a loaded machine.
inline constexpr std::chrono::milliseconds kStartTimeout = std::chrono::seconds(60);
inline constexpr std::chrono::milliseconds kStopTimeout = std::chrono::seconds(30);

// Throws std::system_error for a posix_spawn error code other than 0.
void checkSpawn(int error, const char* what);

// Owns a posix_spawn_file_actions_t.
class FileActions {
 public:
  FileActions();
  ~FileActions();
  FileActions(const FileActions&) = delete;
  FileActions& operator=(const FileActions&) = delete;
  FileActions(FileActions&&) = delete;
  FileActions& operator=(FileActions&&) = delete;

  posix_spawn_file_actions_t* get() { return &actions_; }

 private:
  posix_spawn_file_actions_t actions_{};
};

struct SubprocessOptions {
  bool notifyPipe = false;     // give the child a pipe at Subprocess::kNotifyFd
  bool discardStdout = false;  // send the child's stdout to /dev/null
  bool stdoutToPipe = false;   // send the child's stdout to the notification pipe too (needs notifyPipe)
  std::string stderrPath;      // if set, append the child's stderr to this file
};

// A child process started with posix_spawnp from PATH. It inherits the
// environment and stderr; its stdin is /dev/null and every other inherited
// descriptor is closed, except the notification pipe when asked for one: the
// child then writes to descriptor kNotifyFd and the parent reads with
// readLine(). The destructor terminates the child and reaps it.
class Subprocess {
 public:
  static constexpr int kNotifyFd = 3;

  // Throws std::runtime_error when the program cannot be started.
  explicit Subprocess(const std::vector<std::string>& argv, const SubprocessOptions& options = {});
  ~Subprocess();
  Subprocess(const Subprocess&) = delete;
  Subprocess& operator=(const Subprocess&) = delete;
  Subprocess(Subprocess&&) = delete;
  Subprocess& operator=(Subprocess&&) = delete;

  pid_t pid() const noexcept { return pid_; }

  // True until the child has been reaped.
  bool running() const noexcept { return !status_.has_value(); }

  // The next line the child wrote to its notification pipe, without the line
  // break; a last unterminated line counts once the pipe is closed. nullopt
  // when the pipe is closed (the child exited, say) or `timeout` passes first.
  std::optional<std::string> readLine(std::chrono::milliseconds timeout);

  // Sends `signal` to the child. Does nothing once it has been reaped.
  void signal(int signal) const;

  // Waits for the child to end and reaps it. nullopt if it is still running
  // when `timeout` passes.
  std::optional<ExitStatus> waitForExit(std::chrono::milliseconds timeout);

  // SIGTERM, then SIGKILL if the child has not ended after `grace`; reaps it.
  // Returns how it ended (also when it had ended before).
  ExitStatus terminate(std::chrono::milliseconds grace = kStopTimeout);

  // Runs `argv` to its end with stdout discarded. A child still running after
  // `timeout` is terminated, and the status says so.
  static ExitStatus run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout = kStartTimeout);

 private:
  // A descriptor closed on destruction.
  class Fd {
   public:
    explicit Fd(int fd = -1) noexcept : fd_(fd) {}
    ~Fd();
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;
    Fd(Fd&& other) noexcept : fd_(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    int get() const noexcept { return fd_; }
    int release() noexcept;

   private:
    int fd_;
  };

  pid_t pid_ = -1;
  Fd pidFd_;             // becomes readable when the child ends
  Fd notify_;            // read end of the notification pipe, if any
  std::string pending_;  // notification bytes read but not yet returned
  std::optional<ExitStatus> status_;
};

// A private dbus-daemon, configured as BusPolicy says and listening at
// unix:path=<a fresh temporary directory>/bus. The constructor points
// DBUS_SYSTEM_BUS_ADDRESS and DBUS_SESSION_BUS_ADDRESS at it,
// VELA_PREFERENCES_PATH at <directory>/preferences.sqlite3, and velad's
// STATE_DIRECTORY at <directory>/state with VELA_SERVICE_PREFERENCES_PATH at
// the service's store in it, <directory>/state/preferences.sqlite3, with
// setenv: construct it before the library starts any thread, and set the
// variables again afterwards to use other stores. The variables stay set after
// the bus is gone, so that a stray connection fails instead of reaching the
// machine's own bus, and no store outside the directory is touched.
// What a private bus lets its clients do.
struct BusPolicy {
  // Unset: everything, for every user (tests/support/bus.conf). Set: only
  // what a distribution's system bus allows (tests/support/system_bus.conf):
  // velad's installed bus policy, with this user in place of the service user
  // vela, and polkitd's.
  std::optional<std::string> serviceUser;
};

class PrivateBus {
 public:
  // Throws std::runtime_error when the daemon does not start.
  explicit PrivateBus(const BusPolicy& policy = {});
  // Stops the daemon and removes the directory.
  ~PrivateBus();
  PrivateBus(const PrivateBus&) = delete;
  PrivateBus& operator=(const PrivateBus&) = delete;
  PrivateBus(PrivateBus&&) = delete;
  PrivateBus& operator=(PrivateBus&&) = delete;

  // "unix:path=...", the same across restarts.
  const std::string& address() const noexcept { return address_; }
  // The temporary directory, removed with the bus; free for other files.
  const std::string& directory() const noexcept { return directory_; }
  // The daemon's process, for SIGSTOP/SIGCONT; -1 while it is not running.
  pid_t pid() const noexcept;

  // Sends `signal` to the daemon and reaps it (SIGKILL follows if it ignores
  // a milder signal). Clients see their connections drop. After SIGKILL the
  // socket file stays behind, refusing connections, until restart().
  void kill(int signal = SIGTERM);

  // kill() if the daemon is running, then starts it again at the same address.
  void restart();

 private:
  void writeSystemConfig(const std::string& serviceUser);
  void start();

  std::string config_;
  std::string directory_;
  std::string address_;
  std::optional<Subprocess> daemon_;
};

// How velad runs: in its testing mode, or as the system service it is on a
// real machine (every caller authorized, no testing interface).
enum class VeladMode {
  kTesting,  // velad --bus=session --testing
  kService,  // velad --bus=system
};

// How velad is started, beyond its arguments.
struct VeladLaunch {
  // The command in place of velad's path(): a copy of velad run as another
  // user, say (ServiceUser::launcher()).
  std::vector<std::string> command;
  // A file velad's stderr is appended to; empty: the test's own stderr.
  std::string logPath;
};

// velad on the private bus (which is both buses):
//   <command> <mode's arguments> --ready-fd=3 [extraArgs...]
// with its state in $STATE_DIRECTORY, which PrivateBus points into its
// directory: a restarted velad finds the state its predecessor saved.
// The constructor and restart() return once velad has written READY to that
// descriptor. The binary is $VELAD_PATH if set, else the one this build made.
// The destructor terminates and reaps it.
//
// velad writes each log line before it answers the call that caused it, so
// once a reply has arrived the log holds the call's lines.
class VeladProcess {
 public:
  // Throws std::logic_error when no PrivateBus has set the bus address (velad
  // would join the machine's bus), std::runtime_error when velad exits or
  // stays silent instead of becoming ready.
  explicit VeladProcess(std::vector<std::string> extraArgs = {}, VeladMode mode = VeladMode::kTesting,
                        VeladLaunch launch = {});

  pid_t pid() const noexcept { return process_ ? process_->pid() : -1; }

  // Sends `signal` without waiting; waitForExit() reaps.
  void kill(int signal = SIGTERM);

  // Waits for velad to end (by a signal, or by itself: the testing interface
  // can make it exit mid-call) and reaps it. nullopt if it is still running
  // when `timeout` passes.
  std::optional<ExitStatus> waitForExit(std::chrono::milliseconds timeout = kStopTimeout);

  // Terminates velad if it is still running, starts a new one with the same
  // arguments and waits until it is ready.
  void restart();

  // The binary the constructor starts.
  static std::string path();

 private:
  void start();

  std::vector<std::string> extraArgs_;
  VeladMode mode_;
  VeladLaunch launch_;
  std::optional<Subprocess> process_;
};

}  // namespace vela::testing
