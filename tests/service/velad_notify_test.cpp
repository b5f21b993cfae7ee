// SPDX-License-Identifier: MIT
// velad as systemd runs it: the test plays the service manager, with a
// datagram socket at $NOTIFY_SOCKET, and velad serves the private bus as it
// would serve the system bus.

#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include <gtest/gtest.h>

#include "private_bus.h"
#include "protocol/names.h"
#include "scoped_variable.h"
#include "test_bus_client.h"

namespace vela::testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

// One datagram velad sent, split into its assignments, with the sender's pid
// as the kernel vouches for it.
struct Notification {
  std::vector<std::string> assignments;
  pid_t sender = -1;
  Clock::time_point arrived;

  bool has(std::string_view assignment) const {
    return std::ranges::find(assignments, assignment) != assignments.end();
  }
};

// The service manager's end: a datagram socket bound in the bus's directory,
// named by $NOTIFY_SOCKET while it lives.
class NotifySocket {
 public:
  explicit NotifySocket(const std::string& directory)
      : path_(directory + "/notify"), fd_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
    if (fd_ < 0) throw std::system_error(errno, std::generic_category(), "socket");
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.size() >= sizeof address.sun_path) throw std::runtime_error("socket path too long: " + path_);
    std::memcpy(address.sun_path, path_.c_str(), path_.size() + 1);
    if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {  // NOLINT
      throw std::system_error(errno, std::generic_category(), "bind " + path_);
    }
    // The kernel then attaches the sender's credentials to every datagram.
    const int on = 1;
    if (::setsockopt(fd_, SOL_SOCKET, SO_PASSCRED, &on, sizeof on) != 0) {
      throw std::system_error(errno, std::generic_category(), "SO_PASSCRED");
    }
    ::setenv("NOTIFY_SOCKET", path_.c_str(), 1);
  }
  ~NotifySocket() {
    ::unsetenv("NOTIFY_SOCKET");
    ::close(fd_);
  }
  NotifySocket(const NotifySocket&) = delete;
  NotifySocket& operator=(const NotifySocket&) = delete;
  NotifySocket(NotifySocket&&) = delete;
  NotifySocket& operator=(NotifySocket&&) = delete;

  // The next datagram, or nullopt when none arrives within `timeout`.
  std::optional<Notification> next(milliseconds timeout) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
      pollfd entry{.fd = fd_, .events = POLLIN, .revents = 0};
      const int ready = ::poll(&entry, 1, static_cast<int>(std::max<milliseconds::rep>(left.count(), 0)));
      if (ready == 0) return std::nullopt;
      if (ready < 0) {
        if (errno == EINTR) continue;
        throw std::system_error(errno, std::generic_category(), "poll");
      }
      return receive();
    }
  }

  // The first datagram holding `assignment`, with everything received on the
  // way appended to `seen`; nullopt when none arrives within `timeout`.
  std::optional<Notification> waitFor(std::string_view assignment, milliseconds timeout,
                                      std::vector<Notification>* seen = nullptr) {
    const auto deadline = Clock::now() + timeout;
    for (;;) {
      const auto left = std::chrono::ceil<milliseconds>(deadline - Clock::now());
      std::optional<Notification> got = next(std::max(left, milliseconds(0)));
      if (!got) return std::nullopt;
      if (got->has(assignment)) return got;
      if (seen != nullptr) seen->push_back(std::move(*got));
    }
  }

 private:
  Notification receive() const {
    std::array<char, 4096> buffer{};
    std::array<char, CMSG_SPACE(sizeof(ucred))> control{};
    iovec data{.iov_base = buffer.data(), .iov_len = buffer.size()};
    msghdr header{};
    header.msg_iov = &data;
    header.msg_iovlen = 1;
    header.msg_control = control.data();
    header.msg_controllen = control.size();
    const ssize_t size = ::recvmsg(fd_, &header, MSG_CMSG_CLOEXEC);
    if (size < 0) throw std::system_error(errno, std::generic_category(), "recvmsg");
    Notification received;
    received.arrived = Clock::now();
    for (cmsghdr* message = CMSG_FIRSTHDR(&header); message != nullptr; message = CMSG_NXTHDR(&header, message)) {
      if (message->cmsg_level == SOL_SOCKET && message->cmsg_type == SCM_CREDENTIALS) {
        ucred credentials{};
        std::memcpy(&credentials, CMSG_DATA(message), sizeof credentials);
        received.sender = credentials.pid;
      }
    }
    const std::string_view text(buffer.data(), static_cast<std::size_t>(size));
    std::size_t start = 0;
    while (start < text.size()) {
      const std::size_t end = std::min(text.find('\n', start), text.size());
      if (end > start) received.assignments.emplace_back(text.substr(start, end - start));
      start = end + 1;
    }
    return received;
  }

  std::string path_;
  int fd_ = -1;
};

constexpr milliseconds kDeadline = kStartTimeout;

class VeladUnderAServiceManager : public ::testing::Test {
 protected:
  void SetUp() override {
    // Whatever the environment that ran the tests says about its own manager
    // is not for velad.
    ::unsetenv("WATCHDOG_USEC");
    ::unsetenv("WATCHDOG_PID");
    bus_.emplace();
    socket_.emplace(bus_->directory());
  }

  void TearDown() override {
    if (velad_ && velad_->running()) {
      velad_->signal(SIGCONT);  // in case a test left it frozen
      velad_->terminate();
    }
  }

  // velad --bus=system, as the unit runs it. With `watchdogForItself`,
  // $WATCHDOG_PID names velad's own pid: the shell that sets it becomes velad.
  void startVelad(bool watchdogForItself = false) {
    std::vector<std::string> argv;
    if (watchdogForItself) {
      argv = {"/bin/sh", "-c", R"(WATCHDOG_PID=$$; export WATCHDOG_PID; exec "$0" "$@")"};
    }
    argv.insert(argv.end(), {VeladProcess::path(), "--bus=system"});
    velad_.emplace(argv);
  }

  std::optional<PrivateBus> bus_;
  std::optional<NotifySocket> socket_;
  std::optional<Subprocess> velad_;
};

TEST_F(VeladUnderAServiceManager, ReportsReadyOnlyOnceItOwnsTheName) {
  startVelad();
  std::vector<Notification> before;
  const std::optional<Notification> ready = socket_->waitFor("READY=1", kDeadline, &before);
  ASSERT_TRUE(ready) << "velad sent no READY=1";
  // Frozen at once, so that a name it had yet to take stays untaken while
  // the bus is asked.
  velad_->signal(SIGSTOP);
  EXPECT_EQ(ready->sender, velad_->pid());

  std::string whyNot;
  const auto client = bus::TestBusClient::open(bus::BusKind::kSystem, &whyNot);
  ASSERT_NE(client, nullptr) << whyNot;
  EXPECT_FALSE(client->nameOwner(protocol::kServiceName).empty()) << "READY=1 came before the name was owned";
  velad_->signal(SIGCONT);

  // No watchdog was asked for, so none is fed.
  for (const Notification& earlier : before) EXPECT_FALSE(earlier.has("WATCHDOG=1"));
  EXPECT_FALSE(ready->has("WATCHDOG=1"));
}

TEST_F(VeladUnderAServiceManager, SaysItIsStoppingWhenTerminated) {
  startVelad();
  ASSERT_TRUE(socket_->waitFor("READY=1", kDeadline));
  velad_->signal(SIGTERM);
  const std::optional<Notification> stopping = socket_->waitFor("STOPPING=1", kDeadline);
  ASSERT_TRUE(stopping) << "velad sent no STOPPING=1";
  EXPECT_EQ(stopping->sender, velad_->pid());
  EXPECT_EQ(velad_->waitForExit(kStopTimeout), (ExitStatus{0, 0}));
}

TEST_F(VeladUnderAServiceManager, FeedsTheWatchdogWellWithinItsInterval) {
  constexpr milliseconds kInterval(2000);
  const ScopedVariable interval("WATCHDOG_USEC", std::to_string(kInterval.count() * 1000).c_str());
  startVelad(/*watchdogForItself=*/true);
  ASSERT_TRUE(socket_->waitFor("READY=1", kDeadline));

  // Fed again and again from the loop, not once at start-up, and each time
  // before the interval runs out (at about half of it).
  std::optional<Notification> previous;
  for (int ping = 0; ping < 3; ++ping) {
    const std::optional<Notification> fed = socket_->waitFor("WATCHDOG=1", kDeadline);
    ASSERT_TRUE(fed) << "no WATCHDOG=1 after " << ping << " pings";
    EXPECT_EQ(fed->sender, velad_->pid());
    if (previous) {
      EXPECT_LT(fed->arrived - previous->arrived, kInterval);
    }
    previous = fed;
  }
}

TEST_F(VeladUnderAServiceManager, LeavesAWatchdogMeantForAnotherProcessUnfed) {
  // Inherited from whoever started velad's starter: not velad's to feed.
  constexpr milliseconds kInterval(100);
  const ScopedVariable interval("WATCHDOG_USEC", std::to_string(kInterval.count() * 1000).c_str());
  const ScopedVariable pid("WATCHDOG_PID", std::to_string(::getpid()).c_str());
  startVelad();
  std::vector<Notification> before;
  ASSERT_TRUE(socket_->waitFor("READY=1", kDeadline, &before));
  for (const Notification& earlier : before) EXPECT_FALSE(earlier.has("WATCHDOG=1"));
  // Ten intervals in which a fed watchdog would have had its pings.
  EXPECT_FALSE(socket_->waitFor("WATCHDOG=1", 10 * kInterval));
}

// Under the unit's UMask=0077, in a state directory handed over private:
// the service's preferences must still reach every user, velad's own state
// none.
TEST_F(VeladUnderAServiceManager, KeepsOnlyThePublicStoreReadableUnderAStrictUmask) {
  const std::string state = bus_->directory() + "/state";
  ASSERT_EQ(::mkdir(state.c_str(), 0700), 0) << std::strerror(errno);
  const mode_t previous = ::umask(0077);
  startVelad();
  ::umask(previous);
  ASSERT_TRUE(socket_->waitFor("READY=1", kDeadline));

  auto modeOf = [](const std::string& path) -> mode_t {
    struct stat info {};
    if (::stat(path.c_str(), &info) != 0) {
      ADD_FAILURE() << path << ": " << std::strerror(errno);
      return 0;
    }
    return info.st_mode & 07777;
  };
  EXPECT_EQ(modeOf(state), 0755U);
  EXPECT_EQ(modeOf(state + "/preferences.sqlite3"), 0644U);
  EXPECT_EQ(modeOf(state + "/state.sqlite3"), 0600U);
}

}  // namespace
}  // namespace vela::testing
