// SPDX-License-Identifier: MIT
// What a short-lived client pays: a process that loads the library, makes one
// GetLocusDeviceId call and exits, next to the same call made over bare sd-bus
// by a C++ program and by a C program, and velactl making it from the shell.
//
// Each process is timed whole, from posix_spawn to its reaped exit, so that
// loading and relocating the shared libraries, static initialisation,
// connecting, the call and the teardown all count; its CPU time is what the
// kernel charged it (user + system). A round runs every program once, in an
// order rotated round by round; ratios are taken within a round, where the
// programs met the same load, and their medians are the result.
//
//   vela_one_call_bench [--rounds=N]   (N rounds, default 200)
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
#include <csignal>
#include <cstdio>
#include <cstring>
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "bench_bus.h"
#include "private_bus.h"
#include "sample_stats.h"
#include "unique_fd.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kDefaultRounds = 200;
// Untimed rounds first, so that the page cache holds every binary and shared
// library, and velad and the bus have taken their first-time paths.
constexpr int kWarmUpRounds = 5;
// A healthy run takes milliseconds; this is beyond the library's own time
// limit on a call, so only a hung child reaches it.
constexpr auto kRunDeadline = std::chrono::seconds(30);
constexpr auto kKillDeadline = std::chrono::seconds(5);

// ---- The programs ------------------------------------------------------------

enum ProgramIndex : std::size_t { kLibrary, kBareCxx, kBareC, kVelactl, kProgramCount };

struct Program {
  const char* label;
  const char* counterName;
  std::vector<std::string> argv;
};

const std::array<Program, kProgramCount>& programs() {
  static const std::array<Program, kProgramCount> all{{
      {"library", "library", {VELA_ONE_CALL_LIBRARY}},
      {"bare C++", "bare_cxx", {VELA_ONE_CALL_BARE_CXX}},
      {"bare C", "bare_c", {VELA_ONE_CALL_BARE_C}},
      {"velactl", "velactl", {VELACTL_PATH, "--json", "locus-device-id"}},
  }};
  return all;
}

// A ratio of two programs' times in the same round; a target of 0 means none.
struct Comparison {
  ProgramIndex numerator;
  ProgramIndex denominator;
  const char* label;
  const char* counterName;
  double wallTarget;
};

constexpr std::array<Comparison, 4> kComparisons{{
    {kLibrary, kBareCxx, "library / bare C++", "library/cxx", 1.2},
    {kVelactl, kBareCxx, "velactl / bare C++", "velactl/cxx", 1.3},
    {kLibrary, kBareC, "library / bare C", "library/c", 0},
    {kVelactl, kBareC, "velactl / bare C", "velactl/c", 0},
}};

// Set once by main() before any benchmark runs.
int rounds = kDefaultRounds;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

// ---- Running one program -----------------------------------------------------

[[noreturn]] void throwErrno(int error, const std::string& what) {
  throw std::system_error(error, std::generic_category(), what);
}

using Fd = vela::bench::UniqueFd;

// The child's descriptors: stdin from /dev/null, stdout into `stdoutFd`,
// stderr shared with the bench, and nothing else, so that no descriptor of the
// bench (velad's readiness pipe, say) rides along into the child.
class ChildDescriptors {
 public:
  explicit ChildDescriptors(int stdoutFd) {
    check(::posix_spawn_file_actions_init(&actions_));
    check(::posix_spawn_file_actions_addopen(&actions_, STDIN_FILENO, "/dev/null", O_RDONLY, 0));
    check(::posix_spawn_file_actions_adddup2(&actions_, stdoutFd, STDOUT_FILENO));
    check(::posix_spawn_file_actions_addclosefrom_np(&actions_, STDERR_FILENO + 1));
  }
  ~ChildDescriptors() { ::posix_spawn_file_actions_destroy(&actions_); }
  ChildDescriptors(const ChildDescriptors&) = delete;
  ChildDescriptors& operator=(const ChildDescriptors&) = delete;
  ChildDescriptors(ChildDescriptors&&) = delete;
  ChildDescriptors& operator=(ChildDescriptors&&) = delete;

  const posix_spawn_file_actions_t* get() const { return &actions_; }

 private:
  static void check(int error) {
    if (error != 0) throwErrno(error, "posix_spawn_file_actions");
  }

  posix_spawn_file_actions_t actions_{};
};

// Waits until `fd` is readable; false if `deadline` passes first.
bool waitReadable(int fd, Clock::time_point deadline) {
  for (;;) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - Clock::now());
    pollfd entry{.fd = fd, .events = POLLIN, .revents = 0};
    const int ready = ::poll(&entry, 1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
    if (ready > 0) return true;
    if (ready == 0) return false;
    if (errno != EINTR) throwErrno(errno, "poll");
  }
}

struct Reaped {
  int status = 0;
  rusage usage{};
  bool killed = false;  // by the bench, for outliving its deadline
};

// Waits for the child through its pidfd, which has a deadline where wait4 has
// none, then reaps it with wait4 for its resource usage.
Reaped reap(pid_t pid, int pidFd) {
  Reaped reaped;
  if (!waitReadable(pidFd, Clock::now() + kRunDeadline)) {
    reaped.killed = true;
    ::kill(pid, SIGKILL);
    if (!waitReadable(pidFd, Clock::now() + kKillDeadline)) {
      throw std::runtime_error("process " + std::to_string(pid) + " outlives SIGKILL");
    }
  }
  while (::wait4(pid, &reaped.status, 0, &reaped.usage) < 0) {
    if (errno != EINTR) throwErrno(errno, "wait4");
  }
  return reaped;
}

// Everything in the pipe, whose write end is closed: the child has exited.
std::string readAll(int fd) {
  std::string text;
  std::array<char, 256> buffer{};
  for (;;) {
    const ssize_t n = ::read(fd, buffer.data(), buffer.size());
    if (n > 0) {
      text.append(buffer.data(), static_cast<std::size_t>(n));
    } else if (n == 0) {
      return text;
    } else if (errno != EINTR) {
      throwErrno(errno, "read");
    }
  }
}

double millis(Clock::duration d) { return std::chrono::duration<double, std::milli>(d).count(); }
double millis(const timeval& t) { return static_cast<double>(t.tv_sec) * 1e3 + static_cast<double>(t.tv_usec) / 1e3; }

// How the child ended, when that was not exit code 0.
std::optional<std::string> failure(const Reaped& reaped) {
  if (reaped.killed) return "still running after " + std::to_string(kRunDeadline.count()) + " s; killed";
  if (WIFEXITED(reaped.status) && WEXITSTATUS(reaped.status) == 0) return std::nullopt;
  if (WIFEXITED(reaped.status)) return "exit code " + std::to_string(WEXITSTATUS(reaped.status));
  return "signal " + std::to_string(WTERMSIG(reaped.status)) + " (" + ::strsignal(WTERMSIG(reaped.status)) + ")";
}

struct Sample {
  double wallMs = 0;
  double cpuMs = 0;  // the child's user + system time
};

// Runs `program` to its end and times it whole. Its stdout goes into a pipe
// read after it has exited: the programs print one short line, far below what
// a pipe buffers, so none blocks on writing. Throws std::runtime_error when the
// program cannot be run or does not exit with 0.
Sample runProgram(const Program& program, std::string& output) {
  std::array<int, 2> ends{-1, -1};
  if (::pipe2(ends.data(), O_CLOEXEC) != 0) throwErrno(errno, "pipe2");
  const Fd readEnd(ends[0]);
  Fd writeEnd(ends[1]);
  const ChildDescriptors descriptors(writeEnd.get());
  std::vector<char*> argv;
  // exec takes char* const[] but writes nothing through it.
  for (const auto& arg : program.argv) argv.push_back(const_cast<char*>(arg.c_str()));  // NOLINT(*-const-cast)
  argv.push_back(nullptr);

  pid_t pid = -1;
  const Clock::time_point start = Clock::now();
  if (const int error = ::posix_spawn(&pid, argv[0], descriptors.get(), nullptr, argv.data(), environ); error != 0) {
    throwErrno(error, std::string("cannot start ") + program.label);
  }
  // Through syscall(): glibc 2.36's <sys/pidfd.h> lacks C linkage for C++.
  const Fd pidFd(static_cast<int>(::syscall(SYS_pidfd_open, pid, 0)));
  if (pidFd.get() < 0) {
    const int error = errno;
    ::kill(pid, SIGKILL);  // cannot be ignored: the blocking reap below ends
    ::waitpid(pid, nullptr, 0);
    throwErrno(error, "pidfd_open");
  }
  const Reaped reaped = reap(pid, pidFd.get());
  const Clock::time_point end = Clock::now();

  writeEnd.reset();
  output = readAll(readEnd.get());
  if (const auto why = failure(reaped)) throw std::runtime_error(std::string(program.label) + ": " + *why);
  return Sample{.wallMs = millis(end - start), .cpuMs = millis(reaped.usage.ru_utime) + millis(reaped.usage.ru_stime)};
}

// ---- Rounds ------------------------------------------------------------------

using Round = std::array<Sample, kProgramCount>;

// Every program once, starting from a different one each round, so that each
// takes every place in the round equally often and none always runs first.
// Each must have printed `id`: all four made the same call and got the same
// answer (velactl prints it inside JSON). Throws std::runtime_error on any
// failure.
Round runRound(int round, const std::string& id) {
  Round samples;
  std::string output;
  for (std::size_t i = 0; i < kProgramCount; ++i) {
    const std::size_t which = (static_cast<std::size_t>(round) + i) % kProgramCount;
    const Program& program = programs()[which];
    samples[which] = runProgram(program, output);
    if (output.find(id) == std::string::npos) {
      throw std::runtime_error(std::string(program.label) + " printed \"" + output + "\", not the device id " + id);
    }
  }
  return samples;
}

// Warms the caches, and learns the device id every program must print from the
// library's client.
std::string warmUp() {
  std::string output;
  (void)runProgram(programs()[kLibrary], output);
  std::string id = output.substr(0, output.find('\n'));
  if (id.empty()) throw std::runtime_error("the library's client printed no device id");
  for (int round = 0; round < kWarmUpRounds; ++round) (void)runRound(round, id);
  return id;
}

struct Spread {
  double median = 0;
  double p90 = 0;
};

Spread spread(std::vector<double> values) {
  std::sort(values.begin(), values.end());
  return {vela::bench::medianOfSorted(values), vela::bench::quantileOfSorted(values, 0.9)};
}

// One quantity (wall or CPU time) over all rounds.
struct Samples {
  std::array<std::vector<double>, kProgramCount> perProgram;
  std::array<std::vector<double>, kComparisons.size()> ratios;

  void add(const Round& round, double Sample::*field) {
    for (std::size_t p = 0; p < kProgramCount; ++p) perProgram[p].push_back(round[p].*field);
    for (std::size_t c = 0; c < kComparisons.size(); ++c) {
      const double denominator = round[kComparisons[c].denominator].*field;
      if (denominator > 0) ratios[c].push_back(round[kComparisons[c].numerator].*field / denominator);
    }
  }
};

// What the summary and the counters show of one quantity.
struct Spreads {
  std::array<Spread, kProgramCount> perProgram;
  std::array<Spread, kComparisons.size()> ratios;

  explicit Spreads(const Samples& samples) {
    for (std::size_t p = 0; p < kProgramCount; ++p) perProgram[p] = spread(samples.perProgram[p]);
    for (std::size_t c = 0; c < kComparisons.size(); ++c) ratios[c] = spread(samples.ratios[c]);
  }
};

struct Results {
  int rounds;
  Spreads wall;
  Spreads cpu;
};

// Written by the benchmark, printed by main() after the table.
std::optional<Results> results;  // NOLINT(cppcoreguidelines-avoid-non-const-global-variables)

Results measure(const std::string& id) {
  Samples wall;
  Samples cpu;
  for (int round = 0; round < rounds; ++round) {
    const Round samples = runRound(round, id);
    wall.add(samples, &Sample::wallMs);
    cpu.add(samples, &Sample::cpuMs);
  }
  return Results{rounds, Spreads(wall), Spreads(cpu)};
}

// ---- The benchmark -----------------------------------------------------------

void setCounters(benchmark::State& state, const Spreads& spreads, const std::string& suffix) {
  for (std::size_t p = 0; p < kProgramCount; ++p) {
    state.counters[programs()[p].counterName + suffix + "_ms"] = spreads.perProgram[p].median;
  }
  for (std::size_t c = 0; c < kComparisons.size(); ++c) {
    state.counters[kComparisons[c].counterName + suffix] = spreads.ratios[c].median;
  }
}

// All rounds in one iteration; its time is the library client's median wall
// time, and the counters are medians (milliseconds, and ratios).
void BM_OneCallProcesses(benchmark::State& state) {
  for (auto _ : state) {
    try {
      results = measure(warmUp());
    } catch (const std::exception& e) {
      state.SkipWithError(e.what());
      break;
    }
    state.SetIterationTime(results->wall.perProgram[kLibrary].median / 1e3);
  }
  if (!results) return;
  setCounters(state, results->wall, "");
  setCounters(state, results->cpu, "_cpu");
}

BENCHMARK(BM_OneCallProcesses)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- Reporting ---------------------------------------------------------------

const char* verdict(bool withinTarget) { return withinTarget ? "[ok]" : "[OFF TARGET]"; }

void printTimes(const char* title, const Spreads& spreads) {
  std::printf("  %s\n", title);
  for (std::size_t p = 0; p < kProgramCount; ++p) {
    std::printf("    %-20s %8.3f ms  (p90 %.3f)\n", programs()[p].label, spreads.perProgram[p].median,
                spreads.perProgram[p].p90);
  }
}

void printRatios(const char* title, const Spreads& spreads, bool withTargets) {
  std::printf("  %s\n", title);
  for (std::size_t c = 0; c < kComparisons.size(); ++c) {
    const Comparison& comparison = kComparisons[c];
    const Spread& ratio = spreads.ratios[c];
    std::printf("    %-20s %8.3fx    (p90 %.3f)", comparison.label, ratio.median, ratio.p90);
    if (withTargets && comparison.wallTarget > 0) {
      std::printf("   target <= %.2fx %s", comparison.wallTarget, verdict(ratio.median <= comparison.wallTarget));
    }
    std::printf("\n");
  }
}

void printSummary() {
  if (!results) return;
  std::printf("\nSummary over %d rounds (median of the rounds, p90 in parentheses):\n", results->rounds);
  printTimes("wall time, spawn to reaped exit", results->wall);
  printRatios("wall-time ratios, within each round", results->wall, true);
  printTimes("child CPU time, user + system", results->cpu);
  printRatios("CPU-time ratios, within each round", results->cpu, false);
  (void)std::fflush(stdout);
}

void printHeader() {
  std::printf(
      "vela_one_call_bench: processes that make one GetLocusDeviceId call and exit, each timed whole from\n"
      "posix_spawn to its reaped exit, with the CPU time wait4 reports for it:\n"
      "  library   VelaNotifySession::sharedInstance()->locusDeviceId() through the shared library\n"
      "  bare C++  sd_bus_open_system + sd_bus_call_method, a C++ program without the library\n"
      "  bare C    the same in C, without the C++ runtime\n"
      "  velactl   velactl --json locus-device-id\n"
      "against one velad --testing. %d rounds (--rounds=N) after %d untimed ones; each round runs every\n"
      "program once, in an order rotated each round, and the ratios are taken within a round.\n"
      "Targets (reported, not enforced), on the median whole-process wall time:\n"
      "  library / bare C++  <= 1.20\n"
      "  velactl / bare C++  <= 1.30\n"
      "velad's own messages go to stderr.\n",
      rounds, kWarmUpRounds);
  (void)std::fflush(stdout);
}

// Takes --rounds=N out of argv. False when N is not a positive number.
bool parseRounds(int* argc, char** argv) {
  constexpr std::string_view kFlag = "--rounds=";
  bool valid = true;
  int kept = 1;
  for (int i = 1; i < *argc; ++i) {
    const std::string_view arg = argv[i];
    if (arg.substr(0, kFlag.size()) != kFlag) {
      argv[kept++] = argv[i];
      continue;
    }
    const std::string_view value = arg.substr(kFlag.size());
    const auto [end, error] = std::from_chars(value.data(), value.data() + value.size(), rounds);
    valid = valid && error == std::errc() && end == value.data() + value.size() && rounds > 0;
  }
  *argc = kept;
  return valid;
}

using Environment = vela::bench::BusWithVelad;

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!parseRounds(&argc, argv)) {
    (void)std::fprintf(stderr, "--rounds takes a positive number\n");
    return 2;
  }
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 2;
  printHeader();

  const std::unique_ptr<Environment> environment = Environment::start();
  if (!environment) return 1;

  benchmark::RunSpecifiedBenchmarks();
  printSummary();
  benchmark::Shutdown();
  return results ? 0 : 1;
}
