// What it costs to load the library into a program that already has the libraries beneath it,
// beside a library of the same dependencies with nothing in it.

#include <benchmark/benchmark.h>
#include <dlfcn.h>
#include <krb5.h>
#include <ldap.h>
#include <openssl/bio.h>
#include <sys/mman.h>
#include <sys/ptrace.h>
#include <sys/syscall.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <ctime>
#include <map>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/logger.h"

namespace tavrel::bench {
namespace {

double Now() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) * 1e6 + static_cast<double>(now.tv_nsec) * 1e-3;
}

// Microseconds that a child needs to load `path`.
double LoadTime(const char* path) {
  int ends[2];
  if (pipe(ends) != 0) throw std::runtime_error("pipe");
  const pid_t child = fork();
  if (child == 0) {
    const double start = Now();
    const bool loaded = dlopen(path, RTLD_NOW | RTLD_LOCAL) != nullptr;
    const double taken = loaded ? Now() - start : -1;
    _exit(write(ends[1], &taken, sizeof taken) == sizeof taken ? 0 : 1);
  }
  close(ends[1]);
  double taken = -1;
  const bool received = read(ends[0], &taken, sizeof taken) == sizeof taken;
  close(ends[0]);
  waitpid(child, nullptr, 0);
  if (!received || taken < 0) throw std::runtime_error(path + std::string(": not loaded"));
  return taken;
}

// The system calls that loading `path` makes, by number.
std::map<long, int> SystemCalls(const char* path) {
  const pid_t child = fork();
  if (child == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    syscall(SYS_getppid);  // marks where it begins, and where it ends
    dlopen(path, RTLD_NOW | RTLD_LOCAL);
    syscall(SYS_getppid);
    _exit(0);
  }
  std::map<long, int> calls;
  int status = 0;
  int marks = 0;
  bool entering = false;
  waitpid(child, &status, 0);
  for (;;) {
    ptrace(PTRACE_SYSCALL, child, nullptr, nullptr);
    if (waitpid(child, &status, 0) != child || WIFEXITED(status)) break;
    entering = !entering;
    if (!entering) continue;
    user_regs_struct registers{};
    ptrace(PTRACE_GETREGS, child, nullptr, &registers);
    const auto number = static_cast<long>(registers.orig_rax);
    if (number == SYS_getppid) {
      ++marks;
    } else if (marks == 1) {
      ++calls[number];
    }
  }
  return calls;
}

std::string Text(const std::map<long, int>& calls) {
  const auto name = [](long number) -> std::string {
    switch (number) {
      case SYS_openat: return "openat";
      case SYS_read: return "read";
      case SYS_close: return "close";
      case SYS_newfstatat: return "fstat";
      case SYS_mmap: return "mmap";
      case SYS_mprotect: return "mprotect";
      case SYS_brk: return "brk";
      default: return "#" + std::to_string(number);
    }
  };
  std::string text;
  for (const auto& [number, count] : calls)
    text += (text.empty() ? "" : ", ") + name(number) + " " + std::to_string(count);
  return text;
}

double Median(std::vector<double> values) {
  const auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

void Load(benchmark::State& state) {
  std::vector<double> ours;
  std::vector<double> empty;
  for (auto _ : state) {
    ours.push_back(LoadTime(TAVREL_LIBRARY));
    empty.push_back(LoadTime(TAVREL_EMPTY_LIBRARY));
    state.SetIterationTime((ours.back() + empty.back()) * 1e-6);
  }
  state.counters["ours_us"] = Median(ours);
  state.counters["empty_us"] = Median(empty);
  const auto total = [](const std::map<long, int>& calls) {
    double sum = 0;
    for (const auto& [number, count] : calls)
      sum += count;
    return sum;
  };
  const auto our_calls = SystemCalls(TAVREL_LIBRARY);
  const auto empty_calls = SystemCalls(TAVREL_EMPTY_LIBRARY);
  state.counters["ours_system_calls"] = total(our_calls);
  state.counters["empty_system_calls"] = total(empty_calls);
  state.SetLabel("ours: " + Text(our_calls) + "; empty: " + Text(empty_calls));
}
BENCHMARK(Load)->UseManualTime()->Iterations(50);

}  // namespace
}  // namespace tavrel::bench
