// SPDX-License-Identifier: MIT
// What a synchronous call through the library costs next to the same call made
// with bare sd-bus, how quickly the library gives up when velad is absent, dies
// mid-call or never answers, and what a session costs in memory.
//
// Everything runs in one process against one private bus and one velad started
// by main() before the library starts any thread, so the two sides of each
// comparison meet the same daemon in the same state.
//
// Run by hand with a million calls for the memory check:
//   vela_call_bench --vela_calls=1000000
// The console shows a summary after the usual table; for machine-readable
// results add --benchmark_out=FILE --benchmark_out_format=json.
#include <fcntl.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <barrier>
#include <charconv>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <latch>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>
#include <systemd/sd-bus.h>

#include <vela/VelaNotifySession.h>
#include <vela/VelaSync.h>

#include "bare_call.h"
#include "bench_bus.h"
#include "platform/bus/bus_names.h"
#include "private_bus.h"
#include "protocol/names.h"
#include "sample_stats.h"

namespace {

using vela::bench::median;

using Clock = std::chrono::steady_clock;

constexpr const char* kMember = "GetLocusDeviceId";
constexpr std::int64_t kDefaultCalls = 100'000;
constexpr int kWarmUpCalls = 2'000;
constexpr int kRepetitions = 10;
// The error a synchronous operation reports when no answer came.
constexpr std::intptr_t kTimedOutCode = 106;

double processCpuMicros() {
  timespec now{};
  ::clock_gettime(CLOCK_PROCESS_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) / 1e3;
}

// The process's voluntary context switches so far, all threads.
long voluntarySwitches() {
  rusage usage{};
  ::getrusage(RUSAGE_SELF, &usage);
  return usage.ru_nvcsw;
}

double seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }
double millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }

// ---- Resident memory ---------------------------------------------------------

// Resident memory, counted twice. /proc/self/statm is cheap, but on current
// kernels it sums per-CPU counters that may each lag by a batch of pages, so a
// thread faulting on another CPU can go uncounted for a while; smaps_rollup
// walks the page tables and is exact. Both split into file-backed pages (the
// libraries' code and data, faulted in on first use and shared with every
// process using them) and anonymous pages (heap, stacks): only the latter is
// memory the library holds on to.
struct Rss {
  std::int64_t resident = 0;        // bytes, statm
  std::int64_t shared = 0;          // bytes, statm: file-backed part of `resident`
  std::int64_t exactResident = 0;   // bytes, smaps_rollup
  std::int64_t exactAnonymous = 0;  // bytes, smaps_rollup
  std::int64_t anonymous() const { return resident - shared; }
};

// A small /proc file, read with plain read() into a buffer on the stack, so
// that measuring does not itself allocate.
class ProcFile {
 public:
  explicit ProcFile(const char* path) {
    const int fd = ::open(path, O_RDONLY | O_CLOEXEC);
    if (fd < 0) return;
    while (used_ < buffer_.size()) {
      const ssize_t n = ::read(fd, buffer_.data() + used_, buffer_.size() - used_);
      if (n <= 0) break;
      used_ += static_cast<std::size_t>(n);
    }
    ::close(fd);
  }

  std::string_view text() const { return {buffer_.data(), used_}; }

 private:
  std::array<char, 4096> buffer_{};
  std::size_t used_ = 0;
};

// The number that follows `after` in `text` (leading blanks skipped), 0 if
// `after` does not occur or no number follows.
std::int64_t numberAfter(std::string_view text, std::string_view after) {
  const std::size_t at = text.find(after);
  if (at == std::string_view::npos) return 0;
  std::int64_t value = 0;
  std::string_view rest = text.substr(at + after.size());
  rest.remove_prefix(std::min(rest.find_first_not_of(' '), rest.size()));
  std::from_chars(rest.data(), rest.data() + rest.size(), value);
  return value;
}

Rss readRss() {
  Rss rss;
  const std::int64_t page = ::sysconf(_SC_PAGESIZE);
  // statm starts with the total, resident and shared sizes in pages, one blank apart.
  const ProcFile statm("/proc/self/statm");
  std::array<std::int64_t, 3> pages{};
  const char* at = statm.text().data();
  const char* const end = at + statm.text().size();
  for (std::int64_t& field : pages) {
    const auto [next, error] = std::from_chars(at, end, field);
    if (error != std::errc() || next == end) break;
    at = next + 1;
  }
  rss.resident = pages[1] * page;
  rss.shared = pages[2] * page;
  const ProcFile rollup("/proc/self/smaps_rollup");
  rss.exactResident = numberAfter(rollup.text(), "\nRss:") * 1024;
  rss.exactAnonymous = numberAfter(rollup.text(), "\nAnonymous:") * 1024;
  return rss;
}

constexpr double kKiB = 1024.0;

// ---- The private bus and velad -----------------------------------------------

// Set once by main() before any benchmark runs, read by them afterwards.
std::int64_t callsForGrowthCheck = kDefaultCalls;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

// Made once in main(); benchmarks that need velad up or down say so themselves,
// since the failure benchmarks leave it stopped.
class Environment {
 public:
  static Environment& get() { return *instance_; }
  static void create() { instance_ = new Environment(); }  // NOLINT(cppcoreguidelines-owning-memory)
  static void destroy() {
    delete instance_;  // NOLINT(cppcoreguidelines-owning-memory)
    instance_ = nullptr;
  }

  vela::testing::VeladProcess& velad() { return *velad_; }
  std::string busDescription() const { return bus_.describe(); }

  void ensureVeladRunning() {
    if (velad_->waitForExit(std::chrono::milliseconds(0))) velad_->restart();
  }

  void stopVelad() {
    velad_->kill(SIGTERM);
    (void)velad_->waitForExit();
  }

  // Makes velad's `kMember` behave as `mode` ("never", "exit") through its
  // Testing interface, or as velad would with "normal". Returns 0 or a
  // negative errno. The bench talks to it with bare sd-bus calls, so that it
  // links nothing of the library but the shared library itself.
  int behave(const char* mode) {
    sd_bus* bus = testingBus();
    if (bus == nullptr) return -ENOTCONN;
    sd_bus_error error{nullptr, nullptr, 0};  // SD_BUS_ERROR_NULL is a C compound literal
    const int r = sd_bus_call_method(bus, vela::protocol::kServiceName.data(), vela::protocol::kObjectPath.data(),
                                     vela::protocol::kTestingInterface.data(), "SetBehavior", &error, nullptr, "a{sv}",
                                     2, "member", "s", kMember, "mode", "s", mode);
    sd_bus_error_free(&error);
    return r < 0 ? r : 0;
  }

  ~Environment() { sd_bus_flush_close_unref(testingBus_); }
  Environment(const Environment&) = delete;
  Environment& operator=(const Environment&) = delete;
  Environment(Environment&&) = delete;
  Environment& operator=(Environment&&) = delete;

 private:
  Environment() : velad_(std::in_place) {}

  // Opened on first use, after the session's memory has been measured, so that
  // its connection is not counted as the library's.
  sd_bus* testingBus() {
    if (testingBus_ == nullptr && sd_bus_open_system(&testingBus_) < 0) testingBus_ = nullptr;
    return testingBus_;
  }

  static inline Environment* instance_ = nullptr;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)
  vela::bench::BenchBus bus_;                      // first: it exports the bus address velad and the library use
  std::optional<vela::testing::VeladProcess> velad_;
  sd_bus* testingBus_ = nullptr;
};

// ---- Session footprint, measured in main() before anything else touches the library

struct Footprint {
  bool measured = false;
  bool answered = false;
  Rss before;
  Rss after;
  Clock::duration firstCall{};
};
Footprint footprint;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables): written once by main()

void measureFootprint() {
  footprint.before = readRss();
  const auto start = Clock::now();
  const std::optional<std::string> id = VelaNotifySession::sharedInstance()->locusDeviceId();
  footprint.firstCall = Clock::now() - start;
  footprint.after = readRss();
  footprint.answered = id.has_value();
  footprint.measured = true;
}

// Reports what main() measured; the time shown is that of the first call, which
// includes making the connection.
void BM_SessionFootprint(benchmark::State& state) {
  if (!footprint.measured) state.SkipWithError("footprint was not measured");
  for (auto _ : state) state.SetIterationTime(seconds(footprint.firstCall));
  if (!footprint.answered) state.SkipWithError("the first call got no answer");
  state.counters["rss_KiB"] = static_cast<double>(footprint.after.resident - footprint.before.resident) / kKiB;
  state.counters["anon_KiB"] = static_cast<double>(footprint.after.anonymous() - footprint.before.anonymous()) / kKiB;
  state.counters["file_KiB"] = static_cast<double>(footprint.after.shared - footprint.before.shared) / kKiB;
  state.counters["exact_rss_KiB"] =
      static_cast<double>(footprint.after.exactResident - footprint.before.exactResident) / kKiB;
  state.counters["exact_anon_KiB"] =
      static_cast<double>(footprint.after.exactAnonymous - footprint.before.exactAnonymous) / kKiB;
}

// ---- One synchronous call: library and bare sd-bus ---------------------------

// Benchmarks run in a shuffled order (see main()), so each one that needs
// velad makes sure it is up: the failure benchmarks stop and restart it. Only
// the first thread does; the others wait for it where the timed loop begins.
void prepareSteadyVelad(benchmark::State& state) {
  if (state.thread_index() != 0) return;
  Environment::get().ensureVeladRunning();
  // Reconnects the shared session if velad was restarted, outside the timing.
  if (!VelaNotifySession::sharedInstance()->locusDeviceId()) state.SkipWithError("velad does not answer");
}

void BM_VelaSyncCall(benchmark::State& state) {
  prepareSteadyVelad(state);
  for (auto _ : state) {
    std::optional<std::string> id = VelaNotifySession::sharedInstance()->locusDeviceId();
    if (!id) {
      state.SkipWithError(("no device id, error " + std::to_string(velaLastOperationResult.load())).c_str());
      break;
    }
    benchmark::DoNotOptimize(id);
  }
  state.SetItemsProcessed(state.iterations());
}

using vela::bench::BareConnection;

// A connection per thread: an sd-bus object belongs to one thread at a time.
void BM_BareSdBusCall(benchmark::State& state) {
  prepareSteadyVelad(state);
  BareConnection bare;
  if (!bare.open()) state.SkipWithError(bare.whyNot().c_str());
  // A skipped state runs no iteration but still meets the other threads here.
  for (auto _ : state) {
    std::optional<std::string> id = bare.locusDeviceId();
    if (!id) {
      state.SkipWithError("no device id in the reply");
      break;
    }
    benchmark::DoNotOptimize(id);
  }
  state.SetItemsProcessed(state.iterations());
}

// One call of an alternating comparison, through the library or bare; false,
// with the benchmark skipped, when it got no answer.
bool callOneSide(bool library, VelaNotifySession& session, BareConnection& bare, benchmark::State& state) {
  const std::optional<std::string> id = library ? session.locusDeviceId() : bare.locusDeviceId();
  if (!id) state.SkipWithError(library ? "the library's call got no answer" : "the bare call got no answer");
  return id.has_value();
}

// The library's call and the bare call in turn, each timed on its own, the
// order swapped every iteration. On a shared machine the load drifts over
// seconds, so the two benchmarks above, run at different moments, can differ
// by more than the library costs; alternating call by call exposes both sides
// to the same drift, and the ratio of the medians is the steadier comparison.
void BM_AlternatingCalls(benchmark::State& state) {
  prepareSteadyVelad(state);
  auto session = VelaNotifySession::sharedInstance();
  BareConnection bare;
  if (!bare.open()) state.SkipWithError(bare.whyNot().c_str());
  std::vector<double> viaLibrary;
  std::vector<double> viaBare;
  viaLibrary.reserve(static_cast<std::size_t>(state.max_iterations));
  viaBare.reserve(static_cast<std::size_t>(state.max_iterations));
  bool libraryFirst = true;
  for (auto _ : state) {
    for (int side = 0; side < 2; ++side) {
      const bool library = (side == 0) == libraryFirst;
      const auto start = Clock::now();
      const bool answered = callOneSide(library, *session, bare, state);
      (library ? viaLibrary : viaBare)
          .push_back(std::chrono::duration<double, std::micro>(Clock::now() - start).count());
      if (!answered) break;
    }
    if (state.error_occurred()) break;
    libraryFirst = !libraryFirst;
  }
  const double libraryMedian = median(std::move(viaLibrary));
  const double bareMedian = median(std::move(viaBare));
  state.counters["vela_us"] = libraryMedian;
  state.counters["bare_us"] = bareMedian;
  state.counters["ratio"] = bareMedian > 0 ? libraryMedian / bareMedian : 0;
}

// What the client process spends on the processor per call, the library's
// calls and bare calls taken in alternate blocks so that both meet the same
// drift. Process time counts every thread, the connection's own included; a
// block of calls between two readings keeps the cost of reading the clock
// out of the comparison.
void BM_AlternatingCpu(benchmark::State& state) {
  constexpr int kCallsPerBlock = 100;
  prepareSteadyVelad(state);
  auto session = VelaNotifySession::sharedInstance();
  BareConnection bare;
  if (!bare.open()) state.SkipWithError(bare.whyNot().c_str());
  std::vector<double> viaLibrary;
  std::vector<double> viaBare;
  std::vector<double> ratios;
  bool libraryFirst = true;
  for (auto _ : state) {
    std::array<double, 2> perCall{};  // library, bare
    for (int side = 0; side < 2 && !state.error_occurred(); ++side) {
      const bool library = (side == 0) == libraryFirst;
      const double before = processCpuMicros();
      for (int i = 0; i < kCallsPerBlock && callOneSide(library, *session, bare, state); ++i) {
      }
      perCall[library ? 0 : 1] = (processCpuMicros() - before) / kCallsPerBlock;
    }
    if (state.error_occurred()) break;
    viaLibrary.push_back(perCall[0]);
    viaBare.push_back(perCall[1]);
    // Each pair of neighbouring blocks met the same load: their ratio is
    // the comparison, and the median of the pairs the result.
    if (perCall[1] > 0) ratios.push_back(perCall[0] / perCall[1]);
    libraryFirst = !libraryFirst;
  }
  state.counters["vela_cpu_us"] = median(std::move(viaLibrary));
  state.counters["bare_cpu_us"] = median(std::move(viaBare));
  state.counters["ratio"] = median(std::move(ratios));
}

// Threads that live through a whole comparison, as a program's threads do,
// each with a bare connection of its own that has made its first call before
// any round starts. Threads made afresh for every round counted their own
// start-up too, which through one shared session takes longer to settle: the
// library's share then depended on how long a round was.
class RoundCallers {
 public:
  RoundCallers(int count, std::shared_ptr<VelaNotifySession> session)
      : session_(std::move(session)), start_(count + 1), finish_(count + 1) {
    threads_.reserve(static_cast<std::size_t>(count));
    for (int t = 0; t < count; ++t) threads_.emplace_back([this] { serve(); });
  }
  ~RoundCallers() {
    stopping_ = true;
    start_.arrive_and_wait();
    for (auto& thread : threads_) thread.join();
  }
  RoundCallers(const RoundCallers&) = delete;
  RoundCallers& operator=(const RoundCallers&) = delete;
  RoundCallers(RoundCallers&&) = delete;
  RoundCallers& operator=(RoundCallers&&) = delete;

  // Every thread calls back to back, through the session or its bare
  // connection, for `length`. Returns the calls made, or -1 when one got no
  // answer.
  std::int64_t round(bool library, Clock::duration length) {
    library_ = library;
    calls_ = 0;
    failed_ = false;
    end_ = Clock::now() + length;
    start_.arrive_and_wait();
    finish_.arrive_and_wait();
    return failed_ ? std::int64_t{-1} : calls_.load();
  }

 private:
  void serve() {
    BareConnection bare;
    (void)bare.locusDeviceId();  // connects before the rounds; a failure shows in them
    for (;;) {
      start_.arrive_and_wait();
      if (stopping_) return;
      std::int64_t mine = 0;
      while (Clock::now() < end_) {
        const bool answered = library_ ? session_->locusDeviceId().has_value() : bare.locusDeviceId().has_value();
        if (!answered) {
          failed_ = true;
          break;
        }
        ++mine;
      }
      calls_ += mine;
      finish_.arrive_and_wait();
    }
  }

  std::shared_ptr<VelaNotifySession> session_;
  std::barrier<> start_;
  std::barrier<> finish_;
  // Written by the benchmark's thread before it meets the callers at start_.
  bool library_ = true;
  bool stopping_ = false;
  Clock::time_point end_;
  std::atomic<std::int64_t> calls_{0};
  std::atomic<bool> failed_{false};
  std::vector<std::thread> threads_;  // last: they start using the members above at once
};

// Eight threads calling back to back, through one shared session or each on
// its own bare connection, in alternate rounds of a quarter second, so that
// both sides meet the same drift; the ratio is the median of the rounds'
// ratios.
void BM_AlternatingThroughput(benchmark::State& state) {
  constexpr int kThreads = 8;
  constexpr auto kRound = std::chrono::milliseconds(250);
  prepareSteadyVelad(state);
  RoundCallers callers(kThreads, VelaNotifySession::sharedInstance());
  double libraryCpu = 0;
  double bareCpu = 0;
  double librarySwitches = 0;
  double bareSwitches = 0;
  const auto round = [&](bool library) {
    const double cpuBefore = processCpuMicros();
    const long switchesBefore = voluntarySwitches();
    const std::int64_t calls = callers.round(library, kRound);
    (library ? libraryCpu : bareCpu) += processCpuMicros() - cpuBefore;
    (library ? librarySwitches : bareSwitches) += static_cast<double>(voluntarySwitches() - switchesBefore);
    return calls;
  };
  std::vector<double> ratios;
  double libraryCalls = 0;
  double bareCalls = 0;
  bool libraryFirst = true;
  for (auto _ : state) {
    std::int64_t library = 0;
    std::int64_t bare = 0;
    if (libraryFirst) {
      library = round(true);
      bare = round(false);
    } else {
      bare = round(false);
      library = round(true);
    }
    if (library < 0 || bare <= 0) {
      state.SkipWithError("a call got no answer");
      break;
    }
    libraryCalls += static_cast<double>(library);
    bareCalls += static_cast<double>(bare);
    ratios.push_back(static_cast<double>(library) / static_cast<double>(bare));
    libraryFirst = !libraryFirst;
  }
  const double seconds = std::chrono::duration<double>(kRound).count() * static_cast<double>(ratios.size());
  state.counters["vela_per_s"] = seconds > 0 ? libraryCalls / seconds : 0;
  state.counters["bare_per_s"] = seconds > 0 ? bareCalls / seconds : 0;
  const vela::bench::MedianAndMiddleHalf ratio = vela::bench::medianAndMiddleHalf(std::move(ratios));
  state.counters["ratio"] = ratio.median;
  state.counters["ratio_q1"] = ratio.low;
  state.counters["ratio_q3"] = ratio.high;
  state.counters["vela_cpu_us"] = libraryCalls > 0 ? libraryCpu / libraryCalls : 0;
  state.counters["bare_cpu_us"] = bareCalls > 0 ? bareCpu / bareCalls : 0;
  state.counters["vela_switches"] = libraryCalls > 0 ? librarySwitches / libraryCalls : 0;
  state.counters["bare_switches"] = bareCalls > 0 ? bareSwitches / bareCalls : 0;
}

// ---- Memory over many calls ------------------------------------------------------

void BM_RssGrowthOverCalls(benchmark::State& state) {
  prepareSteadyVelad(state);
  auto session = VelaNotifySession::sharedInstance();
  // Warm-up: the heap, the connection's buffers and the lazily bound symbols
  // reach their working size before the baseline is taken.
  for (int i = 0; i < kWarmUpCalls; ++i) benchmark::DoNotOptimize(session->locusDeviceId());
  const Rss before = readRss();
  std::int64_t failed = 0;
  for (auto _ : state) {
    for (std::int64_t i = 0; i < callsForGrowthCheck; ++i) {
      if (!session->locusDeviceId()) ++failed;
    }
  }
  const Rss after = readRss();
  if (failed != 0) state.SkipWithError((std::to_string(failed) + " calls got no answer").c_str());
  state.SetItemsProcessed(state.iterations() * callsForGrowthCheck);
  state.counters["calls"] = static_cast<double>(callsForGrowthCheck);
  state.counters["rss_growth_KiB"] = static_cast<double>(after.resident - before.resident) / kKiB;
  state.counters["anon_growth_KiB"] = static_cast<double>(after.anonymous() - before.anonymous()) / kKiB;
  state.counters["exact_rss_growth_KiB"] = static_cast<double>(after.exactResident - before.exactResident) / kKiB;
  state.counters["exact_anon_growth_KiB"] = static_cast<double>(after.exactAnonymous - before.exactAnonymous) / kKiB;
}

// ---- Failures: a silent, a dying and an absent daemon ------------------------

struct TimedCall {
  std::optional<std::string> id;
  std::intptr_t code = 0;
  Clock::time_point start;
  Clock::time_point end;
};

TimedCall timedCall() {
  TimedCall call;
  call.start = Clock::now();
  call.id = VelaNotifySession::sharedInstance()->locusDeviceId();
  call.end = Clock::now();
  call.code = velaLastOperationResult.load();
  return call;
}

// A failed call must come back empty with the time-out code; anything else
// means the benchmark measured something other than the failure path.
bool reportedAsTimedOut(const TimedCall& call, benchmark::State& state) {
  if (!call.id && call.code == kTimedOutCode) return true;
  state.SkipWithError(call.id ? "the call was answered" : ("error " + std::to_string(call.code)).c_str());
  return false;
}

void BM_TimeLimit(benchmark::State& state) {
  Environment& environment = Environment::get();
  prepareSteadyVelad(state);
  if (const int r = state.error_occurred() ? 0 : environment.behave("never"); r < 0) {
    state.SkipWithError(("SetBehavior: " + std::string(std::strerror(-r))).c_str());
  }
  for (auto _ : state) {
    const TimedCall call = timedCall();
    state.SetIterationTime(seconds(call.end - call.start));
    if (!reportedAsTimedOut(call, state)) break;
  }
  (void)environment.behave("normal");
}

// Learns when a process ends, from a thread of its own, so the moment velad
// dies can be told apart from the moment the call notices.
class ExitWatch {
 public:
  explicit ExitWatch(pid_t pid) : pidFd_(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0))) {
    std::latch started(1);
    thread_ = std::thread([this, &started] {
      started.count_down();
      pollfd readable{pidFd_, POLLIN, 0};
      if (pidFd_ >= 0 && ::poll(&readable, 1, 10'000) == 1) exitedAt_ = Clock::now();
    });
    started.wait();
  }
  ~ExitWatch() {
    if (thread_.joinable()) thread_.join();
    if (pidFd_ >= 0) ::close(pidFd_);
  }
  ExitWatch(const ExitWatch&) = delete;
  ExitWatch& operator=(const ExitWatch&) = delete;
  ExitWatch(ExitWatch&&) = delete;
  ExitWatch& operator=(ExitWatch&&) = delete;

  std::optional<Clock::time_point> exitedAt() {
    if (thread_.joinable()) thread_.join();
    return exitedAt_;
  }

 private:
  int pidFd_;
  std::optional<Clock::time_point> exitedAt_;
  std::thread thread_;
};

// The iteration time is the whole call (request, velad's exit, the bus's
// answer for the dead peer): an upper bound of the wait after the death, which
// is reported on its own as after_exit_ms.
void BM_DaemonDiesMidCall(benchmark::State& state) {
  Environment& environment = Environment::get();
  std::vector<double> afterExit;
  std::vector<double> whole;
  for (auto _ : state) {
    // A fresh velad, and a session whose connection already reaches it, as a
    // running client's would when the daemon dies under it.
    environment.ensureVeladRunning();
    if (!VelaNotifySession::sharedInstance()->locusDeviceId()) {
      state.SkipWithError("velad does not answer after a restart");
      break;
    }
    if (const int r = environment.behave("exit"); r < 0) {
      state.SkipWithError(("SetBehavior: " + std::string(std::strerror(-r))).c_str());
      break;
    }
    ExitWatch watch(environment.velad().pid());
    const TimedCall call = timedCall();
    const std::optional<Clock::time_point> exitedAt = watch.exitedAt();
    state.SetIterationTime(seconds(call.end - call.start));
    if (!reportedAsTimedOut(call, state)) break;
    whole.push_back(millis(call.end - call.start));
    if (exitedAt) afterExit.push_back(millis(call.end - *exitedAt));
  }
  state.counters["after_exit_ms"] = median(afterExit);
  state.counters["max_after_exit_ms"] = afterExit.empty() ? 0 : *std::max_element(afterExit.begin(), afterExit.end());
  state.counters["max_call_ms"] = whole.empty() ? 0 : *std::max_element(whole.begin(), whole.end());
}

void BM_AbsentServiceReported(benchmark::State& state) {
  Environment::get().stopVelad();
  std::vector<double> samples;
  for (auto _ : state) {
    const TimedCall call = timedCall();
    state.SetIterationTime(seconds(call.end - call.start));
    if (!reportedAsTimedOut(call, state)) break;
    samples.push_back(millis(call.end - call.start));
  }
  state.counters["first_ms"] = samples.empty() ? 0 : samples.front();
  state.counters["median_ms"] = median(samples);
  state.counters["max_ms"] = samples.empty() ? 0 : *std::max_element(samples.begin(), samples.end());
}

BENCHMARK(BM_SessionFootprint)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);
// Wall time is what a blocked caller feels; process CPU time adds the
// connection's own thread, so the CPU column compares the client's total work.
BENCHMARK(BM_VelaSyncCall)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareSdBusCall)
    ->UseRealTime()
    ->MeasureProcessCPUTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlternatingCalls)->Iterations(10'000)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlternatingCpu)->Iterations(200)->UseRealTime()->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_AlternatingThroughput)->Iterations(40)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_VelaSyncCall)
    ->Threads(8)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_BareSdBusCall)
    ->Threads(8)
    ->UseRealTime()
    ->Repetitions(kRepetitions)
    ->ReportAggregatesOnly(true)
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RssGrowthOverCalls)->Iterations(1)->UseRealTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_TimeLimit)->Iterations(3)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_DaemonDiesMidCall)->Iterations(20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(BM_AbsentServiceReported)->Iterations(200)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- Reporting -------------------------------------------------------------------

// The console table, plus the medians kept for the summary that sets them side
// by side with their targets.
class SummaryReporter : public benchmark::ConsoleReporter {
 public:
  using ConsoleReporter::ConsoleReporter;

  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.error_occurred) continue;
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name != "median") continue;
      Result& result = results_[{run.run_name.function_name, run.threads}];
      result.seconds = run.GetAdjustedRealTime() / benchmark::GetTimeUnitMultiplier(run.time_unit);
      for (const auto& [name, counter] : run.counters) result.counters[name] = counter.value;
    }
  }

  void printSummary() const {
    std::printf("\nSummary (medians of %d repetitions where repeated):\n", kRepetitions);
    const Result* vela = find("BM_VelaSyncCall", 1);
    const Result* bare = find("BM_BareSdBusCall", 1);
    if (vela != nullptr && bare != nullptr && bare->seconds > 0) {
      const double ratio = vela->seconds / bare->seconds;
      std::printf("  sync call latency   %.1f us vs bare %.1f us: %.3fx (target <= 1.10x) %s\n", vela->seconds * 1e6,
                  bare->seconds * 1e6, ratio, verdict(ratio <= 1.10));
    }
    if (const Result* r = find("BM_AlternatingCalls", 1)) {
      std::printf("  alternating calls   %.1f us vs bare %.1f us: %.3fx (target <= 1.05x) %s\n", r->counter("vela_us"),
                  r->counter("bare_us"), r->counter("ratio"), verdict(r->counter("ratio") <= 1.05));
    }
    if (const Result* r = find("BM_AlternatingCpu", 1)) {
      std::printf("  client CPU per call %.1f us vs bare %.1f us: %.3fx (target <= 1.15x) %s\n",
                  r->counter("vela_cpu_us"), r->counter("bare_cpu_us"), r->counter("ratio"),
                  verdict(r->counter("ratio") <= 1.15));
    }
    if (const Result* r = find("BM_AlternatingThroughput", 1)) {
      std::printf(
          "  8 threads, rounds   %.0f/s vs bare %.0f/s: %.3fx (target >= 0.90x) %s, middle half of the rounds "
          "%.3f-%.3f; client CPU per call %.1f us vs %.1f us, sleeps per call %.2f vs %.2f\n",
          r->counter("vela_per_s"), r->counter("bare_per_s"), r->counter("ratio"), verdict(r->counter("ratio") >= 0.90),
          r->counter("ratio_q1"), r->counter("ratio_q3"), r->counter("vela_cpu_us"), r->counter("bare_cpu_us"),
          r->counter("vela_switches"), r->counter("bare_switches"));
    }
    const Result* vela8 = find("BM_VelaSyncCall", 8);
    const Result* bare8 = find("BM_BareSdBusCall", 8);
    if (vela8 != nullptr && bare8 != nullptr && bare8->counter("items_per_second") > 0) {
      const double ratio = vela8->counter("items_per_second") / bare8->counter("items_per_second");
      std::printf("  8-thread throughput %.0f/s vs bare %.0f/s: %.3fx (target >= 0.90x) %s\n",
                  vela8->counter("items_per_second"), bare8->counter("items_per_second"), ratio,
                  verdict(ratio >= 0.90));
    }
    if (const Result* r = find("BM_SessionFootprint", 1)) {
      std::printf(
          "  session + one call  RSS %+.0f KiB (anonymous %+.0f, file-backed %+.0f; exact %+.0f, anonymous %+.0f; "
          "target <= 1536) %s\n",
          r->counter("rss_KiB"), r->counter("anon_KiB"), r->counter("file_KiB"), r->counter("exact_rss_KiB"),
          r->counter("exact_anon_KiB"), verdict(std::max(r->counter("rss_KiB"), r->counter("exact_rss_KiB")) <= 1536));
    }
    if (const Result* r = find("BM_RssGrowthOverCalls", 1)) {
      std::printf(
          "  %.0f more calls    RSS %+.0f KiB (anonymous %+.0f; exact %+.0f, anonymous %+.0f; target: no growth) %s\n",
          r->counter("calls"), r->counter("rss_growth_KiB"), r->counter("anon_growth_KiB"),
          r->counter("exact_rss_growth_KiB"), r->counter("exact_anon_growth_KiB"),
          verdict(std::max(r->counter("rss_growth_KiB"), r->counter("exact_rss_growth_KiB")) <= 0));
    }
    if (const Result* r = find("BM_TimeLimit", 1)) {
      const double ms = r->seconds * 1e3;
      std::printf("  silent daemon       %.1f ms (target 5000-5050) %s\n", ms, verdict(ms >= 5000 && ms <= 5050));
    }
    if (const Result* r = find("BM_DaemonDiesMidCall", 1)) {
      std::printf(
          "  daemon dies         returns %.2f ms after velad's exit, median (max %.2f; whole call %.2f ms mean, "
          "%.2f max; target < 20) %s\n",
          r->counter("after_exit_ms"), r->counter("max_after_exit_ms"), r->seconds * 1e3, r->counter("max_call_ms"),
          verdict(r->counter("after_exit_ms") < 20));
    }
    if (const Result* r = find("BM_AbsentServiceReported", 1)) {
      std::printf("  absent daemon       %.2f ms median, %.2f max, first %.2f (target < 5) %s\n",
                  r->counter("median_ms"), r->counter("max_ms"), r->counter("first_ms"),
                  verdict(r->counter("median_ms") < 5));
    }
    (void)std::fflush(stdout);
  }

 private:
  struct Result {
    double seconds = 0;  // real time per iteration
    std::map<std::string, double> counters;
    double counter(const std::string& name) const {
      const auto found = counters.find(name);
      return found != counters.end() ? found->second : 0;
    }
  };

  static const char* verdict(bool withinTarget) { return withinTarget ? "[ok]" : "[OFF TARGET]"; }

  const Result* find(const std::string& function, std::int64_t threads) const {
    const auto found = results_.find({function, threads});
    return found != results_.end() ? &found->second : nullptr;
  }

  std::map<std::pair<std::string, std::int64_t>, Result> results_;
};

void printHeader() {
  std::printf(
      "vela_call_bench: GetLocusDeviceId through the library (VelaNotifySession::sharedInstance()->locusDeviceId())\n"
      "against a blocking sd_bus_call_method of the same member on a connection of its own, both reading the\n"
      "device id out of the a{sv} reply, against one velad --testing started here on a private dbus-daemon, or\n"
      "on the bus whose address is in VELA_BENCH_BUS_ADDRESS.\n"
      "Targets (reported, not enforced):\n"
      "  BM_VelaSyncCall median latency         <= 1.10x BM_BareSdBusCall\n"
      "  BM_AlternatingCalls ratio              <= 1.05: the same, one call of each in turn (steadier under load)\n"
      "  BM_AlternatingCpu ratio                <= 1.15: the client process's CPU per call, blocks of each in turn\n"
      "  BM_VelaSyncCall threads:8 items/s      >= 0.90x BM_BareSdBusCall threads:8\n"
      "                                            (8 threads share one session; bare threads own a connection each)\n"
      "  BM_AlternatingThroughput ratio         >= 0.90: the same in alternate rounds (steadier under load)\n"
      "  BM_SessionFootprint rss_KiB            <= 1536: RSS growth from making the session and its first call\n"
      "  BM_RssGrowthOverCalls rss_growth_KiB   0 over %lld calls after warm-up (--vela_calls=N or VELA_BENCH_CALLS)\n"
      "  BM_TimeLimit                           5000-5050 ms when velad never answers\n"
      "  BM_DaemonDiesMidCall after_exit_ms     < 20 ms from velad's exit to the call returning 106\n"
      "                                            (the time column is the whole call, request included)\n"
      "  BM_AbsentServiceReported median_ms     < 5 ms to return 106 with velad stopped\n"
      "Repetitions of all benchmarks run in a shuffled order; velad's own messages go to stderr.\n\n",
      static_cast<long long>(callsForGrowthCheck));
  (void)std::fflush(stdout);
}

// Takes --vela_calls=N out of argv; VELA_BENCH_CALLS is the fallback.
bool parseCalls(int* argc, char** argv) {
  if (const char* fromEnvironment = std::getenv("VELA_BENCH_CALLS")) {
    callsForGrowthCheck = std::strtoll(fromEnvironment, nullptr, 10);
  }
  constexpr std::string_view kFlag = "--vela_calls=";
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.substr(0, kFlag.size()) == kFlag) {
      callsForGrowthCheck = std::strtoll(argv[i] + kFlag.size(), nullptr, 10);
    } else {
      argv[kept++] = argv[i];
    }
  }
  *argc = kept;
  return callsForGrowthCheck > 0;
}

}  // namespace

int main(int argc, char** argv) {
  // The library and the bare side are measured minutes apart on a machine
  // whose load drifts; shuffling the repetitions of all benchmarks spreads the
  // drift over both. A =false given on the command line comes later and wins.
  std::vector<char*> args(argv, argv + argc);
  std::string interleave = "--benchmark_enable_random_interleaving=true";
  args.insert(args.begin() + 1, interleave.data());
  int count = static_cast<int>(args.size());
  args.push_back(nullptr);
  benchmark::Initialize(&count, args.data());
  if (!parseCalls(&count, args.data())) {
    (void)std::fprintf(stderr, "the number of calls must be positive\n");
    return 2;
  }
  if (benchmark::ReportUnrecognizedArguments(count, args.data())) return 2;
  printHeader();

  try {
    // The bus address must be in the environment before the library starts its
    // first thread; velad must be ready before the first call is measured.
    Environment::create();
  } catch (const std::exception& e) {
    (void)std::fprintf(stderr, "cannot start the private bus and velad: %s\n", e.what());
    return 1;
  }
  std::printf("Bus: %s\n\n", Environment::get().busDescription().c_str());
  measureFootprint();

  SummaryReporter reporter(isatty(STDOUT_FILENO) != 0 ? benchmark::ConsoleReporter::OO_Color
                                                      : benchmark::ConsoleReporter::OO_None);
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printSummary();
  benchmark::Shutdown();
  Environment::destroy();
  return 0;
}
