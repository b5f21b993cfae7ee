// SPDX-License-Identifier: MIT
// What many client processes calling velad at once get through the library,
// next to as many calling with bare sd-bus: calls per second, the median and
// 99th-percentile latency over all calls, and what the clients spend per call
// in CPU and in voluntary context switches. 1, 10 and 100 clients call back to
// back, then once every 100 ms each.
//
// main() starts one bus and one velad and never uses the library itself: every
// client is this program started again with a hidden first argument, so it is
// a fresh process that loads the library and connects as a real client does,
// with none of a parent's threads. Clients of one kind run in rounds, the
// library's and the bare ones taking turns, the order swapped every round, so
// both meet the same drift of a shared machine; each pair of neighbouring
// rounds gives a ratio, and the median of those ratios is the result.
//
//   vela_load_bench [--load_seconds=S] [--load_rounds=R] [--load_clients=1,10,100]
// The console shows a summary after the usual table; for machine-readable
// results add --benchmark_out=FILE --benchmark_out_format=json.
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <limits>
#include <map>
#include <memory>
#include <optional>
#include <span>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include <vela/VelaNotifySession.h>

#include "bare_call.h"
#include "bench_bus.h"
#include "private_bus.h"
#include "sample_stats.h"
#include "unique_fd.h"

namespace {

using vela::bench::median;

using Clock = std::chrono::steady_clock;
using vela::testing::ExitStatus;

// ---- What is measured --------------------------------------------------------

constexpr int kPaceMs = 100;
constexpr double kBackToBackSeconds = 2;
constexpr double kPacedSeconds = 3;
constexpr int kDefaultRounds = 3;
constexpr int kMostClients = 1000;

enum class Kind { kLibrary, kBare };

const char* kindName(Kind kind) { return kind == Kind::kLibrary ? "library" : "bare"; }

struct Options {
  std::optional<double> seconds;  // every round's window; else each mode's default
  int rounds = kDefaultRounds;
  std::vector<int> clients{1, 10, 100};
};

// One benchmark: rounds of `clients` processes of each kind, calling back to
// back (paceMs 0) or once every paceMs, for `seconds` per round.
struct Configuration {
  int clients = 1;
  int paceMs = 0;
  double seconds = kBackToBackSeconds;
  int rounds = kDefaultRounds;

  bool paced() const { return paceMs > 0; }
  std::string name() const {
    return std::string(paced() ? "BM_LoadPaced" : "BM_LoadBackToBack") + "/clients:" + std::to_string(clients);
  }
  std::string label() const {
    std::string text = paced() ? "one call every " + std::to_string(paceMs) + " ms" : "back to back";
    return text + ", " + std::to_string(clients) + (clients == 1 ? " client" : " clients");
  }
};

std::vector<Configuration> configurationsFor(const Options& options) {
  std::vector<Configuration> configurations;
  for (const int paceMs : {0, kPaceMs}) {
    for (const int clients : options.clients) {
      const double seconds = options.seconds.value_or(paceMs > 0 ? kPacedSeconds : kBackToBackSeconds);
      configurations.push_back({.clients = clients, .paceMs = paceMs, .seconds = seconds, .rounds = options.rounds});
    }
  }
  return configurations;
}

// ---- Between the benchmark and its clients --------------------------------------

// A client writes kReady to kReportFd once its connection is warm, and after
// its window a ClientReport followed by `calls` latencies; then it exits. Its
// stdin is the start pipe: end of file there starts the window.
constexpr int kReportFd = 3;
constexpr char kReady = 'R';
constexpr std::string_view kClientFlag = "--client";
constexpr const char* kSelf = "/proc/self/exe";

struct ClientReport {
  std::int64_t calls = 0;     // answered with a device id
  std::int64_t failures = 0;  // no answer, or no device id in it
  double cpuSeconds = 0;      // user + system, every thread, over the window
  std::int64_t voluntarySwitches = 0;
};
static_assert(std::is_trivially_copyable_v<ClientReport>);

using Latency = std::uint32_t;  // nanoseconds, clamped

// Generous, as a hundred clients start slowly on a loaded machine: all must be
// ready within kReadyTimeout, and report within kReportTimeout after their
// window. A client never released gives up after twice the wait for readiness,
// so that it outlives a benchmark that is still waiting for the others.
constexpr auto kReadyTimeout = vela::testing::kStartTimeout;
constexpr auto kReportTimeout = vela::testing::kStartTimeout;
constexpr auto kClientStartTimeout = 2 * vela::testing::kStartTimeout;

Clock::duration fromSeconds(double seconds) {
  return std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
}

[[noreturn]] void throwErrno(const char* what) { throw std::system_error(errno, std::generic_category(), what); }

// Waits until one of `fds` is ready; false when `deadline` passes first.
bool pollUntil(std::span<pollfd> fds, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    const int ready = ::poll(fds.data(), fds.size(), static_cast<int>(std::max<std::int64_t>(left.count(), 0)));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) throwErrno("poll");
  }
}

bool writeAll(int fd, const void* data, std::size_t size) {
  const auto* bytes = static_cast<const char*>(data);
  while (size > 0) {
    const ssize_t written = ::write(fd, bytes, size);
    if (written < 0 && errno == EINTR) continue;
    if (written <= 0) return false;
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return true;
}

template <typename Number>
bool parseNumber(std::string_view text, Number& value) {
  const char* const end = text.data() + text.size();
  const auto [next, error] = std::from_chars(text.data(), end, value);
  return error == std::errc() && next == end;
}

// ---- The client -----------------------------------------------------------------

struct ClientArgs {
  Kind kind = Kind::kLibrary;
  double seconds = 0;
  int paceMs = 0;   // 0: back to back
  int phaseUs = 0;  // first paced call this long after the start
};

// Exit codes; the client says why on stderr.
enum ClientExit {
  kClientOk = 0,
  kClientUsage = 2,
  kClientNoAnswer = 3,
  kClientNoStart = 4,
  kClientCannotReport = 5,
  kClientFailed = 6,
};

std::vector<std::string> clientArgv(const Configuration& config, Kind kind, int index) {
  // Paced clients spread their calls over the period, as independent
  // processes would; all calling in the same instant would measure a queue.
  const int phaseUs = config.paced() ? config.paceMs * 1000 / config.clients * index : 0;
  return {"vela_load_bench",
          std::string(kClientFlag),
          kindName(kind),
          "--seconds",
          std::to_string(config.seconds),
          "--pace-ms",
          std::to_string(config.paceMs),
          "--phase-us",
          std::to_string(phaseUs)};
}

std::optional<ClientArgs> parseClientArgs(std::span<char* const> args) {
  constexpr std::size_t kCount = 9;  // as clientArgv() makes them
  if (args.size() != kCount) return std::nullopt;
  ClientArgs parsed;
  if (const std::string_view kind = args[2]; kind == kindName(Kind::kLibrary)) {
    parsed.kind = Kind::kLibrary;
  } else if (kind == kindName(Kind::kBare)) {
    parsed.kind = Kind::kBare;
  } else {
    return std::nullopt;
  }
  for (std::size_t i = 3; i + 1 < kCount; i += 2) {
    const std::string_view flag = args[i];
    const std::string_view value = args[i + 1];
    const bool parsedOne = flag == "--seconds"    ? parseNumber(value, parsed.seconds)
                           : flag == "--pace-ms"  ? parseNumber(value, parsed.paceMs)
                           : flag == "--phase-us" ? parseNumber(value, parsed.phaseUs)
                                                  : false;
    if (!parsedOne) return std::nullopt;
  }
  if (!(parsed.seconds > 0) || parsed.paceMs < 0 || parsed.phaseUs < 0) return std::nullopt;
  return parsed;
}

void complain(const char* what) { (void)std::fprintf(stderr, "vela_load_bench client %d: %s\n", ::getpid(), what); }

// Blocks until the benchmark closes the start pipe: end of file reaches every
// client at once.
bool waitForStart() {
  pollfd start{.fd = STDIN_FILENO, .events = POLLIN, .revents = 0};
  if (!pollUntil({&start, 1}, Clock::now() + kClientStartTimeout)) return false;
  char byte = 0;
  return ::read(STDIN_FILENO, &byte, 1) == 0;
}

double cpuSeconds(const rusage& usage) {
  const auto seconds = [](const timeval& t) {
    return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_usec) / 1e6;
  };
  return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

rusage usageNow() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);  // every thread: the library's connection thread counts too
  return usage;
}

struct Window {
  ClientReport report;
  std::vector<Latency> latencies;
};

// Makes one call and records how long it took; returns when it ended.
template <typename Call>
Clock::time_point timedCall(Call& call, Window& window) {
  const auto start = Clock::now();
  const bool answered = call();
  const auto end = Clock::now();
  if (answered) {
    const std::int64_t ns = std::chrono::duration_cast<std::chrono::nanoseconds>(end - start).count();
    window.latencies.push_back(static_cast<Latency>(std::min<std::int64_t>(ns, std::numeric_limits<Latency>::max())));
  } else {
    ++window.report.failures;
  }
  return end;
}

template <typename Call>
Window measureWindow(const ClientArgs& args, Call& call) {
  constexpr std::size_t kExpectedCalls = 1U << 17U;  // so that growing the buffer rarely falls in the window
  Window window;
  window.latencies.reserve(kExpectedCalls);
  const rusage before = usageNow();
  const auto start = Clock::now();
  const auto end = start + fromSeconds(args.seconds);
  if (args.paceMs > 0) {
    // Sleeping until the next slot rather than for the period keeps the
    // rate whatever a call takes.
    const std::chrono::milliseconds period(args.paceMs);
    for (auto next = start + std::chrono::microseconds(args.phaseUs); next < end; next += period) {
      std::this_thread::sleep_until(next);
      timedCall(call, window);
    }
  } else {
    for (auto now = start; now < end;) now = timedCall(call, window);
  }
  const rusage after = usageNow();
  window.report.calls = static_cast<std::int64_t>(window.latencies.size());
  window.report.cpuSeconds = cpuSeconds(after) - cpuSeconds(before);
  window.report.voluntarySwitches = after.ru_nvcsw - before.ru_nvcsw;
  return window;
}

// The connection is made and used once before the client says it is ready,
// so that neither connecting nor the first call's lazy set-up is measured.
template <typename Call>
int serve(const ClientArgs& args, Call call) {
  if (!call()) {
    complain("the warm-up call got no answer");
    return kClientNoAnswer;
  }
  if (!writeAll(kReportFd, &kReady, 1)) return kClientCannotReport;
  if (!waitForStart()) {
    complain("no start came");
    return kClientNoStart;
  }
  const Window window = measureWindow(args, call);
  const bool sent = writeAll(kReportFd, &window.report, sizeof window.report) &&
                    writeAll(kReportFd, window.latencies.data(), window.latencies.size() * sizeof(Latency));
  return sent ? kClientOk : kClientCannotReport;
}

int runClient(std::span<char* const> argv) {
  const std::optional<ClientArgs> args = parseClientArgs(argv);
  if (!args) {
    complain("bad arguments");
    return kClientUsage;
  }
  // Only this process may hold the report pipe, so that its end means the
  // client has ended, whatever the library might start.
  (void)::fcntl(kReportFd, F_SETFD, FD_CLOEXEC);
  try {
    if (args->kind == Kind::kLibrary) {
      return serve(*args, [] { return VelaNotifySession::sharedInstance()->locusDeviceId().has_value(); });
    }
    vela::bench::BareConnection bare;
    if (!bare.open()) {
      complain(bare.whyNot().c_str());
      return kClientNoAnswer;
    }
    return serve(*args, [&bare] { return bare.locusDeviceId().has_value(); });
  } catch (const std::exception& error) {
    complain(error.what());
    return kClientFailed;
  }
}

// ---- Client processes, seen from the benchmark ------------------------------------

using vela::bench::UniqueFd;

struct Pipe {
  UniqueFd read;
  UniqueFd write;
};

// Both ends close on exec and are numbered above kReportFd, so that placing
// them at 0 and kReportFd in a client can neither overwrite one with the other
// nor be a dup2 onto itself, which would leave close-on-exec set.
Pipe makePipe() {
  std::array<int, 2> fds{-1, -1};
  if (::pipe2(fds.data(), O_CLOEXEC) != 0) throwErrno("pipe2");
  std::array<UniqueFd, 2> ends{UniqueFd(fds[0]), UniqueFd(fds[1])};
  for (UniqueFd& end : ends) {
    if (end.get() > kReportFd) continue;
    const int moved = ::fcntl(end.get(), F_DUPFD_CLOEXEC, kReportFd + 1);
    if (moved < 0) throwErrno("fcntl");
    end = UniqueFd(moved);
  }
  return {std::move(ends[0]), std::move(ends[1])};
}

using vela::testing::checkSpawn;
using vela::testing::FileActions;

// One client process and what it has sent so far. The destructor kills a
// client that has not been reaped, so a failed round leaves none behind.
class Client {
 public:
  Client(const std::vector<std::string>& argv, Kind kind, int startFd) : kind_(kind) {
    Pipe report = makePipe();
    FileActions actions;
    checkSpawn(::posix_spawn_file_actions_adddup2(actions.get(), startFd, STDIN_FILENO), "adddup2");
    checkSpawn(::posix_spawn_file_actions_adddup2(actions.get(), report.write.get(), kReportFd), "adddup2");
    // Nothing else this process holds may reach a client: one holding another
    // client's report pipe would keep that pipe's end of file from coming.
    checkSpawn(::posix_spawn_file_actions_addclosefrom_np(actions.get(), kReportFd + 1), "addclosefrom_np");
    std::vector<char*> cArgv;
    cArgv.reserve(argv.size() + 1);
    // exec takes char* const[] but writes nothing through it.
    for (const auto& arg : argv) cArgv.push_back(const_cast<char*>(arg.c_str()));  // NOLINT(*-const-cast)
    cArgv.push_back(nullptr);
    // /proc/self/exe is this very binary even if it was rebuilt meanwhile.
    checkSpawn(::posix_spawn(&pid_, kSelf, actions.get(), nullptr, cArgv.data(), environ), "posix_spawn");
    report_ = std::move(report.read);
    // Through syscall(): glibc 2.36's <sys/pidfd.h> lacks C linkage for C++.
    pidFd_ = UniqueFd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    if (pidFd_.get() < 0) {
      const int error = errno;
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      throw std::system_error(error, std::generic_category(), "pidfd_open");
    }
  }
  ~Client() {
    if (reaped_) return;
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  Client(const Client&) = delete;
  Client& operator=(const Client&) = delete;
  Client(Client&&) = delete;
  Client& operator=(Client&&) = delete;

  int reportFd() const noexcept { return report_.get(); }
  bool ready() const noexcept { return !received_.empty(); }
  // End of file on the report pipe: the client has ended.
  bool ended() const noexcept { return report_.get() < 0; }
  // Everything after kReady.
  std::string_view report() const {
    const std::string_view received = received_;
    return received.substr(std::min<std::size_t>(1, received.size()));
  }

  // Reads what the client has written so far; closes the pipe at end of file.
  void receive() {
    std::array<char, 65536> buffer{};
    const ssize_t count = ::read(report_.get(), buffer.data(), buffer.size());
    if (count > 0) {
      if (received_.empty() && buffer[0] != kReady) throw std::runtime_error(who() + " sent garbage");
      received_.append(buffer.data(), static_cast<std::size_t>(count));
    } else if (count == 0) {
      report_.reset();
    } else if (errno != EINTR) {
      throwErrno("read");
    }
  }

  // Reaps the client; nullopt if it is still running at `deadline`.
  std::optional<ExitStatus> reap(Clock::time_point deadline) {
    if (reaped_) return status_;
    pollfd exited{.fd = pidFd_.get(), .events = POLLIN, .revents = 0};
    if (!pollUntil({&exited, 1}, deadline)) return std::nullopt;
    int raw = 0;
    while (::waitpid(pid_, &raw, 0) < 0) {
      if (errno != EINTR) throwErrno("waitpid");
    }
    reaped_ = true;
    status_ = WIFSIGNALED(raw) ? ExitStatus{.code = 0, .signal = WTERMSIG(raw)}
                               : ExitStatus{.code = WEXITSTATUS(raw), .signal = 0};
    return status_;
  }

  std::string who() const { return std::string(kindName(kind_)) + " client " + std::to_string(pid_); }

 private:
  Kind kind_;
  pid_t pid_ = -1;
  UniqueFd pidFd_;  // readable once the client has ended
  UniqueFd report_;
  std::string received_;
  bool reaped_ = false;
  ExitStatus status_;
};

using Clients = std::vector<std::unique_ptr<Client>>;

std::string describeEnd(Client& client, Clock::time_point deadline) {
  const std::optional<ExitStatus> status = client.reap(deadline);
  return client.who() + (status ? " ended with " + status->toString() : " closed its report pipe but runs on");
}

// Reads from the clients until `done` holds for every one. Throws when a
// client ends short of it, or when `limit` has passed.
void awaitClients(Clients& clients, bool (Client::*done)() const noexcept, Clock::duration limit, const char* what) {
  const auto deadline = Clock::now() + limit;
  std::vector<pollfd> fds;
  std::vector<Client*> waitingFor;
  for (;;) {
    fds.clear();
    waitingFor.clear();
    for (const auto& client : clients) {
      if (((*client).*done)()) continue;
      if (client->ended()) throw std::runtime_error(describeEnd(*client, deadline) + " before it " + what);
      fds.push_back({.fd = client->reportFd(), .events = POLLIN, .revents = 0});
      waitingFor.push_back(client.get());
    }
    if (fds.empty()) return;
    if (!pollUntil(fds, deadline)) {
      throw std::runtime_error(std::to_string(fds.size()) + " of " + std::to_string(clients.size()) +
                               " clients had not " + what + " within " +
                               std::to_string(std::chrono::ceil<std::chrono::seconds>(limit).count()) + " s");
    }
    for (std::size_t i = 0; i < fds.size(); ++i) {
      if (fds[i].revents != 0) waitingFor[i]->receive();
    }
  }
}

// The report part of what a client sent; its latencies are appended to
// `latencies`.
ClientReport decodeReport(const Client& client, std::vector<Latency>& latencies) {
  const std::string_view bytes = client.report();
  ClientReport report;
  if (bytes.size() < sizeof report) throw std::runtime_error(client.who() + " sent no report");
  std::memcpy(&report, bytes.data(), sizeof report);
  const std::string_view tail = bytes.substr(sizeof report);
  if (report.calls < 0 || tail.size() != static_cast<std::size_t>(report.calls) * sizeof(Latency)) {
    throw std::runtime_error(client.who() + " sent a malformed report");
  }
  const std::size_t old = latencies.size();
  latencies.resize(old + static_cast<std::size_t>(report.calls));
  std::memcpy(latencies.data() + old, tail.data(), tail.size());
  return report;
}

// ---- Rounds and their numbers --------------------------------------------------------

enum Metric : std::size_t { kCallsPerSecond, kP50, kP99, kCpuPerCall, kSwitchesPerCall, kMetricCount };
using Stats = std::array<double, kMetricCount>;

struct MetricInfo {
  const char* counter;  // the counters are vela_<counter>, bare_<counter> and <counter>_ratio
  const char* label;
  const char* unit;
  int decimals;
  double target;      // for library / bare
  bool atLeast;       // the target is a floor rather than a ceiling
  int onlyAtClients;  // the target holds at this many clients only; 0: at every number
};

constexpr std::array<MetricInfo, kMetricCount> kMetrics{{
    {"per_s", "calls/s", "/s", 0, 0.95, true, 0},
    {"p50_us", "p50 latency", " us", 1, 1.10, false, 0},
    {"p99_us", "p99 latency", " us", 1, 1.10, false, 0},
    {"cpu_us", "client CPU per call", " us", 1, 1.15, false, 0},
    {"switches", "voluntary switches per call", "", 2, 1.1, false, 100},
}};

// Nearest rank, in microseconds; reorders `latencies`.
double percentileMicros(std::vector<Latency>& latencies, double fraction) {
  // Selecting rather than sorting: a round holds hundreds of thousands of calls.
  const auto at = latencies.begin() + static_cast<std::ptrdiff_t>(vela::bench::nearestRank(latencies.size(), fraction));
  std::nth_element(latencies.begin(), at, latencies.end());
  return static_cast<double>(*at) / 1e3;
}

// Reaps the clients, which have all closed their report pipes, and sums up
// their reports.
Stats summarise(Clients& clients, const Configuration& config, Kind kind) {
  const auto deadline = Clock::now() + vela::testing::kStopTimeout;
  ClientReport total;
  std::vector<Latency> latencies;
  for (const auto& client : clients) {
    if (const std::optional<ExitStatus> status = client->reap(deadline); status != ExitStatus{}) {
      throw std::runtime_error(describeEnd(*client, deadline));
    }
    const ClientReport report = decodeReport(*client, latencies);
    total.calls += report.calls;
    total.failures += report.failures;
    total.cpuSeconds += report.cpuSeconds;
    total.voluntarySwitches += report.voluntarySwitches;
  }
  if (total.failures > 0) {
    throw std::runtime_error(std::to_string(total.failures) + " of " + std::to_string(total.calls + total.failures) +
                             " " + kindName(kind) + " calls got no device id");
  }
  if (total.calls == 0) throw std::runtime_error("no call was made");
  const auto calls = static_cast<double>(total.calls);
  Stats stats{};
  stats[kCallsPerSecond] = calls / config.seconds;
  stats[kP50] = percentileMicros(latencies, 0.50);
  stats[kP99] = percentileMicros(latencies, 0.99);
  stats[kCpuPerCall] = total.cpuSeconds * 1e6 / calls;
  stats[kSwitchesPerCall] = static_cast<double>(total.voluntarySwitches) / calls;
  return stats;
}

// Starts the round's clients, releases them together once every one is
// ready, and sums up what they report. Throws when anything goes wrong.
Stats runRound(const Configuration& config, Kind kind) {
  Pipe start = makePipe();
  Clients clients;
  clients.reserve(static_cast<std::size_t>(config.clients));
  for (int i = 0; i < config.clients; ++i) {
    clients.push_back(std::make_unique<Client>(clientArgv(config, kind, i), kind, start.read.get()));
  }
  start.read.reset();
  awaitClients(clients, &Client::ready, kReadyTimeout, "was ready");
  start.write.reset();
  awaitClients(clients, &Client::ended, fromSeconds(config.seconds) + kReportTimeout, "reported");
  return summarise(clients, config, kind);
}

struct Comparison {
  Stats library{};  // medians over the rounds
  Stats bare{};
  Stats ratio{};    // medians of library / bare over the pairs of neighbouring rounds
  Stats ratioQ1{};  // and the quartiles of those pairs' ratios
  Stats ratioQ3{};
};

Comparison compare(const Configuration& config) {
  std::array<std::vector<double>, kMetricCount> library;
  std::array<std::vector<double>, kMetricCount> bare;
  std::array<std::vector<double>, kMetricCount> ratios;
  for (int round = 0; round < config.rounds; ++round) {
    const bool libraryFirst = round % 2 == 0;
    const Stats first = runRound(config, libraryFirst ? Kind::kLibrary : Kind::kBare);
    const Stats second = runRound(config, libraryFirst ? Kind::kBare : Kind::kLibrary);
    const Stats& viaLibrary = libraryFirst ? first : second;
    const Stats& viaBare = libraryFirst ? second : first;
    for (std::size_t m = 0; m < kMetricCount; ++m) {
      library[m].push_back(viaLibrary[m]);
      bare[m].push_back(viaBare[m]);
      if (viaBare[m] > 0) ratios[m].push_back(viaLibrary[m] / viaBare[m]);
    }
  }
  Comparison comparison;
  for (std::size_t m = 0; m < kMetricCount; ++m) {
    comparison.library[m] = median(std::move(library[m]));
    comparison.bare[m] = median(std::move(bare[m]));
    const vela::bench::MedianAndMiddleHalf ratio = vela::bench::medianAndMiddleHalf(std::move(ratios[m]));
    comparison.ratio[m] = ratio.median;
    comparison.ratioQ1[m] = ratio.low;
    comparison.ratioQ3[m] = ratio.high;
  }
  return comparison;
}

// The time column is the library's median p50 latency; everything else is in
// the counters.
void runConfiguration(benchmark::State& state, const Configuration& config, vela::testing::VeladProcess& velad) {
  for (auto _ : state) {
    try {
      if (const auto status = velad.waitForExit(std::chrono::milliseconds(0))) {
        throw std::runtime_error("velad has ended with " + status->toString());
      }
      const Comparison comparison = compare(config);
      state.SetIterationTime(comparison.library[kP50] / 1e6);
      for (std::size_t m = 0; m < kMetricCount; ++m) {
        const std::string name = kMetrics[m].counter;
        state.counters["vela_" + name] = comparison.library[m];
        state.counters["bare_" + name] = comparison.bare[m];
        state.counters[name + "_ratio"] = comparison.ratio[m];
        state.counters[name + "_ratio_q1"] = comparison.ratioQ1[m];
        state.counters[name + "_ratio_q3"] = comparison.ratioQ3[m];
      }
    } catch (const std::exception& error) {
      state.SkipWithError(error.what());
    }
  }
}

// ---- Reporting ---------------------------------------------------------------------

// The console table, plus the counters kept for the summary that sets the
// ratios beside their targets.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      Result& result = results_[run.run_name.function_name];
      result.error = run.error_occurred ? run.error_message : std::string();
      for (const auto& [name, counter] : run.counters) result.counters[name] = counter.value;
    }
  }

  void printSummary(const std::vector<Configuration>& configurations, int rounds) const {
    std::printf(
        "\nSummary: library vs bare, medians over %d round%s of each; ratios are library / bare, the median\n"
        "of the pairs of neighbouring rounds, and in brackets the middle half of those pairs (targets reported,\n"
        "not enforced)\n",
        rounds, rounds == 1 ? "" : "s");
    for (const Configuration& config : configurations) {
      const auto found = results_.find(config.name());
      if (found == results_.end()) continue;
      const Result& result = found->second;
      if (!result.error.empty()) {
        std::printf("  %s: not measured: %s\n", config.label().c_str(), result.error.c_str());
        continue;
      }
      std::printf("  %s\n", config.label().c_str());
      for (const MetricInfo& metric : kMetrics) printMetric(result, metric, config.clients);
    }
    (void)std::fflush(stdout);
  }

 private:
  struct Result {
    std::string error;
    std::map<std::string, double> counters;
    double counter(const std::string& name) const {
      const auto found = counters.find(name);
      return found != counters.end() ? found->second : 0;
    }
  };

  static std::string withUnit(double value, const MetricInfo& metric) {
    std::array<char, 48> text{};
    (void)std::snprintf(text.data(), text.size(), "%.*f%s", metric.decimals, value, metric.unit);
    return text.data();
  }

  static void printMetric(const Result& result, const MetricInfo& metric, int clients) {
    const std::string name = metric.counter;
    const double ratio = result.counter(name + "_ratio");
    std::string verdict = "(no target at this number of clients)";
    if (metric.onlyAtClients == 0 || metric.onlyAtClients == clients) {
      const bool met = metric.atLeast ? ratio >= metric.target : ratio <= metric.target;
      std::array<char, 64> text{};
      (void)std::snprintf(text.data(), text.size(), "(target %s %.2f) %s", metric.atLeast ? ">=" : "<=", metric.target,
                          met ? "[ok]" : "[OFF TARGET]");
      verdict = text.data();
    }
    std::printf("    %-28s %12s vs %12s  %.3fx [%.2f-%.2f] %s\n", metric.label,
                withUnit(result.counter("vela_" + name), metric).c_str(),
                withUnit(result.counter("bare_" + name), metric).c_str(), ratio, result.counter(name + "_ratio_q1"),
                result.counter(name + "_ratio_q3"), verdict.c_str());
  }

  std::map<std::string, Result> results_;
};

void printHeader(const Options& options) {
  std::printf(
      "vela_load_bench: GetLocusDeviceId from many client processes at once, through the library\n"
      "(VelaNotifySession::sharedInstance()->locusDeviceId()) or with a blocking sd_bus_call_method on a bare\n"
      "connection, against one velad --testing started here on a private dbus-daemon, or on the bus whose\n"
      "address is in VELA_BENCH_BUS_ADDRESS.\n"
      "Each benchmark runs %d round%s of each kind, taking turns, the order swapped every round. A round starts N\n"
      "client processes of one kind, lets each connect and make one call, then releases them together to call\n"
      "back to back (for %g s) or once every %d ms each (for %g s). Per round: calls/s over all clients, p50 and\n"
      "p99 latency over all calls, and the clients' CPU (user + system, every thread) and voluntary context\n"
      "switches per call; with few calls (one paced client makes 30 a round) p99 is close to the slowest call.\n"
      "The time column is the library's median p50; the CPU column is this process's own, which only starts\n"
      "the clients and collects their reports.\n"
      "Targets (reported, not enforced), as library / bare:\n"
      "  at every N      calls/s >= 0.95, p50 <= 1.10, p99 <= 1.10, client CPU per call <= 1.15\n"
      "  at N = 100      voluntary context switches per call <= 1.1\n"
      "Flags: --load_seconds=S (every round's length), --load_rounds=R, --load_clients=1,10,100.\n"
      "velad's and the clients' own messages go to stderr.\n\n",
      options.rounds, options.rounds == 1 ? "" : "s", options.seconds.value_or(kBackToBackSeconds), kPaceMs,
      options.seconds.value_or(kPacedSeconds));
  (void)std::fflush(stdout);
}

// ---- Flags ---------------------------------------------------------------------------

std::optional<std::string_view> valueOf(std::string_view arg, std::string_view flag) {
  if (arg.substr(0, flag.size()) != flag) return std::nullopt;
  return arg.substr(flag.size());
}

bool parseClientCounts(std::string_view text, std::vector<int>& counts) {
  counts.clear();
  while (!text.empty()) {
    const std::size_t comma = std::min(text.find(','), text.size());
    int count = 0;
    if (!parseNumber(text.substr(0, comma), count) || count < 1 || count > kMostClients) return false;
    counts.push_back(count);
    text.remove_prefix(std::min(comma + 1, text.size()));
  }
  return !counts.empty();
}

// Takes the --load_* flags out of argv; nullopt after saying which one is
// malformed.
std::optional<Options> parseOptions(int* argc, char** argv) {
  Options options;
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string_view arg = argv[i];
    bool valid = true;
    if (const auto value = valueOf(arg, "--load_seconds=")) {
      double seconds = 0;
      valid = parseNumber(*value, seconds) && seconds > 0;
      options.seconds = seconds;
    } else if (const auto value = valueOf(arg, "--load_rounds=")) {
      valid = parseNumber(*value, options.rounds) && options.rounds > 0;
    } else if (const auto value = valueOf(arg, "--load_clients=")) {
      valid = parseClientCounts(*value, options.clients);
    } else {
      argv[kept++] = argv[i];
    }
    if (!valid) {
      (void)std::fprintf(stderr, "invalid flag: %s\n", argv[i]);
      return std::nullopt;
    }
  }
  *argc = kept;
  return options;
}

using Environment = vela::bench::BusWithVelad;

}  // namespace

int main(int argc, char** argv) {
  // A client is this program started again by a round below.
  if (argc > 1 && std::string_view(argv[1]) == kClientFlag) {
    return runClient(std::span<char* const>(argv, static_cast<std::size_t>(argc)));
  }
  benchmark::Initialize(&argc, argv);
  const std::optional<Options> options = parseOptions(&argc, argv);
  if (!options) return 2;
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  printHeader(*options);

  const std::unique_ptr<Environment> environment = Environment::start();
  if (!environment) return 1;

  const std::vector<Configuration> configurations = configurationsFor(*options);
  vela::testing::VeladProcess& velad = environment->velad;
  for (const Configuration& config : configurations) {
    benchmark::RegisterBenchmark(config.name().c_str(),
                                 [config, &velad](benchmark::State& state) { runConfiguration(state, config, velad); })
        ->Iterations(1)
        ->UseManualTime()
        ->Unit(benchmark::kMicrosecond);
  }
  SummaryReporter reporter(isatty(STDOUT_FILENO) != 0 ? benchmark::ConsoleReporter::OO_Color
                                                      : benchmark::ConsoleReporter::OO_None);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printSummary(configurations, options->rounds);
  benchmark::Shutdown();
  return 0;
}
