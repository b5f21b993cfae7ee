// SPDX-License-Identifier: MIT
#include "private_bus.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <stdexcept>
#include <string_view>
#include <system_error>
#include <utility>

namespace vela::testing {
namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

std::string joined(const std::vector<std::string>& argv) {
  std::string text;
  for (const auto& arg : argv) {
    if (!text.empty()) text += ' ';
    text += arg;
  }
  return text;
}

// Waits until `fd` is readable or `deadline` passes. A negative timeout waits
// without a deadline. Returns false on timeout.
bool waitReadable(int fd, std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    int waitMs = -1;
    if (timeout.count() >= 0) {
      const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
      waitMs = static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0));
    }
    pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&entry, 1, waitMs);
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) throwErrno(errno, "poll");
  }
}

}  // namespace

void checkSpawn(int error, const char* what) {
  if (error != 0) throwErrno(error, what);
}

FileActions::FileActions() { checkSpawn(::posix_spawn_file_actions_init(&actions_), "posix_spawn_file_actions_init"); }

FileActions::~FileActions() { ::posix_spawn_file_actions_destroy(&actions_); }

std::string ExitStatus::toString() const {
  if (signal == 0) return "exit code " + std::to_string(code);
  return "signal " + std::to_string(signal) + " (" + ::strsignal(signal) + ")";
}

void PrintTo(const ExitStatus& status, std::ostream* os) { *os << status.toString(); }

Subprocess::Fd::~Fd() {
  if (fd_ >= 0) ::close(fd_);
}

Subprocess::Fd& Subprocess::Fd::operator=(Fd&& other) noexcept {
  if (this != &other) {
    if (fd_ >= 0) ::close(fd_);
    fd_ = other.release();
  }
  return *this;
}

int Subprocess::Fd::release() noexcept { return std::exchange(fd_, -1); }

Subprocess::Subprocess(const std::vector<std::string>& argv, const SubprocessOptions& options) {
  if (argv.empty()) throw std::invalid_argument("Subprocess: empty argv");

  Fd writeEnd;
  if (options.notifyPipe) {
    std::array<int, 2> fds{-1, -1};
    if (::pipe2(fds.data(), O_CLOEXEC) != 0) throwErrno(errno, "pipe2");
    notify_ = Fd(fds[0]);
    writeEnd = Fd(fds[1]);
    // dup2 onto the same number would keep close-on-exec set, so move it away.
    if (writeEnd.get() == kNotifyFd) {
      const int moved = ::fcntl(writeEnd.get(), F_DUPFD_CLOEXEC, kNotifyFd + 1);
      if (moved < 0) throwErrno(errno, "fcntl");
      writeEnd = Fd(moved);
    }
  }

  FileActions actions;
  checkSpawn(::posix_spawn_file_actions_addopen(actions.get(), STDIN_FILENO, "/dev/null", O_RDONLY, 0),
             "posix_spawn_file_actions_addopen");
  if (options.discardStdout) {
    checkSpawn(::posix_spawn_file_actions_addopen(actions.get(), STDOUT_FILENO, "/dev/null", O_WRONLY, 0),
               "posix_spawn_file_actions_addopen");
  }
  if (!options.stderrPath.empty()) {
    checkSpawn(::posix_spawn_file_actions_addopen(actions.get(), STDERR_FILENO, options.stderrPath.c_str(),
                                                  O_WRONLY | O_CREAT | O_APPEND, 0600),
               "posix_spawn_file_actions_addopen");
  }
  int firstClosed = STDERR_FILENO + 1;
  if (options.notifyPipe) {
    checkSpawn(::posix_spawn_file_actions_adddup2(actions.get(), writeEnd.get(), kNotifyFd),
               "posix_spawn_file_actions_adddup2");
    if (options.stdoutToPipe) {
      checkSpawn(::posix_spawn_file_actions_adddup2(actions.get(), writeEnd.get(), STDOUT_FILENO),
                 "posix_spawn_file_actions_adddup2");
    }
    firstClosed = kNotifyFd + 1;
  }
  // Descriptors the test process opened without close-on-exec (or that a
  // library opened) must not leak: a leaked pipe end keeps a reader from ever
  // seeing end-of-file, and a leaked bus socket keeps a connection alive.
  checkSpawn(::posix_spawn_file_actions_addclosefrom_np(actions.get(), firstClosed),
             "posix_spawn_file_actions_addclosefrom_np");

  std::vector<char*> cArgv;
  cArgv.reserve(argv.size() + 1);
  // exec takes char* const[] but writes nothing through it.
  for (const auto& arg : argv) cArgv.push_back(const_cast<char*>(arg.c_str()));  // NOLINT(*-const-cast)
  cArgv.push_back(nullptr);

  if (const int error = ::posix_spawnp(&pid_, cArgv[0], actions.get(), nullptr, cArgv.data(), environ); error != 0) {
    throwErrno(error, "cannot start " + joined(argv));
  }
  // Through syscall(): glibc 2.36's <sys/pidfd.h> lacks C linkage for C++.
  pidFd_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
  if (pidFd_.get() < 0) {
    const int error = errno;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
    throwErrno(error, "pidfd_open");
  }
}

Subprocess::~Subprocess() {
  try {
    if (running()) terminate();
  } catch (const std::exception& error) {
    std::cerr << "Subprocess " << pid_ << ": " << error.what() << '\n';
  }
}

std::optional<std::string> Subprocess::readLine(std::chrono::milliseconds timeout) {
  const auto deadline = Clock::now() + timeout;
  for (;;) {
    if (const auto end = pending_.find('\n'); end != std::string::npos) {
      std::string line = pending_.substr(0, end);
      pending_.erase(0, end + 1);
      return line;
    }
    if (notify_.get() < 0) break;
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (!waitReadable(notify_.get(), std::max(left, std::chrono::milliseconds(0)))) return std::nullopt;
    std::array<char, 256> buffer{};
    const ssize_t count = ::read(notify_.get(), buffer.data(), buffer.size());
    if (count > 0) {
      pending_.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      notify_ = Fd();
    } else if (errno != EINTR) {
      throwErrno(errno, "read");
    }
  }
  if (pending_.empty()) return std::nullopt;
  return std::exchange(pending_, std::string());
}

void Subprocess::signal(int signal) const {
  // Until it is reaped, the pid cannot be reused by another process.
  if (running()) ::kill(pid_, signal);
}

std::optional<ExitStatus> Subprocess::waitForExit(std::chrono::milliseconds timeout) {
  if (status_) return status_;
  if (!waitReadable(pidFd_.get(), timeout)) return std::nullopt;
  int raw = 0;
  while (::waitpid(pid_, &raw, 0) < 0) {
    if (errno != EINTR) throwErrno(errno, "waitpid");
  }
  status_ = WIFSIGNALED(raw) ? ExitStatus{.code = 0, .signal = WTERMSIG(raw)}
                             : ExitStatus{.code = WEXITSTATUS(raw), .signal = 0};
  pidFd_ = Fd();
  return status_;
}

ExitStatus Subprocess::terminate(std::chrono::milliseconds grace) {
  signal(SIGTERM);
  if (auto status = waitForExit(grace)) return *status;
  signal(SIGKILL);
  return *waitForExit(std::chrono::milliseconds(-1));
}

ExitStatus Subprocess::run(const std::vector<std::string>& argv, std::chrono::milliseconds timeout) {
  Subprocess child(argv, SubprocessOptions{.notifyPipe = false, .discardStdout = true, .stderrPath = {}});
  if (auto status = child.waitForExit(timeout)) return *status;
  return child.terminate();
}

PrivateBus::PrivateBus(const BusPolicy& policy) : config_(VELA_TEST_BUS_CONF) {
  std::string pattern = (std::filesystem::temp_directory_path() / "vela-bus-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) throwErrno(errno, "mkdtemp " + pattern);
  directory_ = pattern;
  address_ = "unix:path=" + directory_ + "/bus";
  // The address carries no guid: the daemon gets a new one on every restart,
  // and a client that checks it would refuse the restarted bus.
  ::setenv("DBUS_SYSTEM_BUS_ADDRESS", address_.c_str(), 1);
  ::setenv("DBUS_SESSION_BUS_ADDRESS", address_.c_str(), 1);
  ::setenv("VELA_PREFERENCES_PATH", (directory_ + "/preferences.sqlite3").c_str(), 1);
  // velad keeps the service's preferences in its state directory, where every
  // client reads them.
  ::setenv("STATE_DIRECTORY", (directory_ + "/state").c_str(), 1);
  ::setenv("VELA_SERVICE_PREFERENCES_PATH", (directory_ + "/state/preferences.sqlite3").c_str(), 1);
  try {
    if (policy.serviceUser) writeSystemConfig(*policy.serviceUser);
    start();
  } catch (...) {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
    throw;
  }
}

PrivateBus::~PrivateBus() {
  daemon_.reset();  // terminates and reaps
  try {
    std::error_code ignored;
    std::filesystem::remove_all(directory_, ignored);
  } catch (const std::exception& error) {
    std::cerr << "PrivateBus: cannot remove " << directory_ << ": " << error.what() << '\n';
  }
}

pid_t PrivateBus::pid() const noexcept { return daemon_ ? daemon_->pid() : -1; }

void PrivateBus::kill(int signal) {
  if (!daemon_) return;
  daemon_->signal(signal);
  if (!daemon_->waitForExit(kStopTimeout)) daemon_->terminate(std::chrono::milliseconds(0));
  daemon_.reset();
}

void PrivateBus::restart() {
  kill();
  start();
}

void PrivateBus::writeSystemConfig(const std::string& serviceUser) {
  const std::filesystem::path into = std::filesystem::path(directory_) / "bus.d";
  std::filesystem::create_directories(into);
  config_ = (into / "system_bus.conf").string();
  std::filesystem::copy_file(VELA_SYSTEM_BUS_CONF, config_);
  std::ifstream installed(VELA_BUS_POLICY);
  std::string policy((std::istreambuf_iterator<char>(installed)), std::istreambuf_iterator<char>());
  static constexpr std::string_view kServiceUser = R"(user="vela")";
  const std::size_t at = policy.find(kServiceUser);
  if (!installed || at == std::string::npos) {
    throw std::runtime_error(std::string("no policy for the service user in ") + VELA_BUS_POLICY);
  }
  policy.replace(at, kServiceUser.size(), "user=\"" + serviceUser + "\"");
  std::ofstream(into / std::filesystem::path(VELA_BUS_POLICY).filename()) << policy;
}

void PrivateBus::start() {
  const std::vector<std::string> argv{"dbus-daemon", "--config-file=" + config_, "--address=" + address_,
                                      "--print-address=" + std::to_string(Subprocess::kNotifyFd), "--nofork"};
  daemon_.emplace(argv, SubprocessOptions{.notifyPipe = true, .discardStdout = true, .stderrPath = {}});
  // The daemon prints its address once it listens; connections made from then
  // on are accepted.
  if (!daemon_->readLine(kStartTimeout)) {
    const ExitStatus status = daemon_->terminate();
    daemon_.reset();
    throw std::runtime_error("dbus-daemon did not start (" + status.toString() + "): " + joined(argv));
  }
}

VeladProcess::VeladProcess(std::vector<std::string> extraArgs, VeladMode mode, VeladLaunch launch)
    : extraArgs_(std::move(extraArgs)), mode_(mode), launch_(std::move(launch)) {
  if (std::getenv("DBUS_SYSTEM_BUS_ADDRESS") == nullptr) {
    throw std::logic_error("VeladProcess needs a PrivateBus first: velad would join the machine's bus");
  }
  start();
}

void VeladProcess::kill(int signal) {
  if (process_) process_->signal(signal);
}

std::optional<ExitStatus> VeladProcess::waitForExit(std::chrono::milliseconds timeout) {
  if (!process_) return std::nullopt;
  return process_->waitForExit(timeout);
}

void VeladProcess::restart() {
  process_.reset();  // terminates and reaps
  start();
}

std::string VeladProcess::path() {
  if (const char* fromEnvironment = std::getenv("VELAD_PATH"); fromEnvironment != nullptr && *fromEnvironment != 0) {
    return fromEnvironment;
  }
#ifdef VELAD_PATH
  return VELAD_PATH;
#else
  throw std::runtime_error("velad was not built; set VELAD_PATH to a velad binary");
#endif
}

void VeladProcess::start() {
  // The session bus for testing: velad serves its testing interface nowhere
  // else.
  std::vector<std::string> argv = launch_.command.empty() ? std::vector<std::string>{path()} : launch_.command;
  if (mode_ == VeladMode::kTesting) {
    argv.insert(argv.end(), {"--bus=session", "--testing"});
  } else {
    argv.emplace_back("--bus=system");
  }
  argv.push_back("--ready-fd=" + std::to_string(Subprocess::kNotifyFd));
  argv.insert(argv.end(), extraArgs_.begin(), extraArgs_.end());
  process_.emplace(argv, SubprocessOptions{.notifyPipe = true, .discardStdout = false, .stderrPath = launch_.logPath});

  const auto deadline = Clock::now() + kStartTimeout;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    const auto line = process_->readLine(std::max(left, std::chrono::milliseconds(0)));
    if (line && line->find("READY") != std::string::npos) return;
    if (!line) break;
  }
  const ExitStatus status = process_->terminate();
  process_.reset();
  throw std::runtime_error("velad did not become ready (" + status.toString() + "): " + joined(argv));
}

}  // namespace vela::testing
