#include "Child.h"

#include <poll.h>
#include <sys/ptrace.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <stdexcept>

namespace tavrel::tests {
namespace {

constexpr int kStatusOfAnException = 70;

struct Pipe {
  Pipe() {
    int ends[2];
    if (pipe(ends) != 0) throw std::runtime_error("no pipe");
    read_end = ends[0];
    write_end = ends[1];
  }
  int read_end;
  int write_end;
};

void WriteAll(int file, const std::string& text) {
  for (std::size_t done = 0; done < text.size();) {
    const ssize_t count = write(file, text.data() + done, text.size() - done);
    if (count <= 0) _exit(kStatusOfAnException);
    done += static_cast<std::size_t>(count);
  }
}

// Until all that could write have ended.
std::string ReadAll(int file) {
  std::string text;
  char part[4096];
  for (ssize_t count; (count = read(file, part, sizeof part)) > 0;)
    text.append(part, static_cast<std::size_t>(count));
  return text;
}

int StatusOf(pid_t id) {
  int status = 0;
  if (waitpid(id, &status, 0) != id) throw std::runtime_error("no such child");
  return status;
}

std::string EndOf(pid_t id) {
  const int status = StatusOf(id);
  if (WIFSIGNALED(status)) return "ended by signal " + std::to_string(WTERMSIG(status));
  if (WEXITSTATUS(status) != 0) return "ended with status " + std::to_string(WEXITSTATUS(status));
  return "";
}

}  // namespace

std::shared_mutex& NoFork() {
  static std::shared_mutex mutex;
  return mutex;
}

std::string InChild(const std::function<std::string()>& work) {
  Child child([&](const Child::Pause& pause) {
    pause();
    return work();
  });
  child.Resume();
  return child.Result();
}

Child::Child(const std::function<std::string(const Pause&)>& work) {
  const Pipe result, paused, resume;
  {
    const std::lock_guard<std::shared_mutex> quiet(NoFork());
    id_ = fork();
  }
  if (id_ == -1) throw std::runtime_error("no child");
  if (id_ == 0) {
    close(result.read_end);
    close(paused.read_end);
    close(resume.write_end);
    const auto pause = [&] {
      char byte = 0;
      if (write(paused.write_end, &byte, 1) != 1 || read(resume.read_end, &byte, 1) != 1) {
        _exit(kStatusOfAnException);
      }
    };
    try {
      WriteAll(result.write_end, work(pause));
    } catch (const std::exception&) {
      _exit(kStatusOfAnException);
    }
    _exit(0);
  }
  close(result.write_end);
  close(paused.write_end);
  close(resume.read_end);
  result_ = result.read_end;
  paused_ = paused.read_end;
  resume_ = resume.write_end;
  char byte;
  if (read(paused_, &byte, 1) != 1)
    throw std::runtime_error("the child did not pause: " + EndOf(id_));
}

Child::~Child() {
  if (id_ != -1) {
    kill(id_, SIGKILL);
    StatusOf(id_);
  }
  close(result_);
  close(paused_);
  close(resume_);
}

void Child::Resume() {
  const char byte = 0;
  if (write(resume_, &byte, 1) != 1) throw std::runtime_error("the child cannot go on");
}

std::string Child::Result() {
  const std::string text = ReadAll(result_);
  const std::string end = EndOf(id_);
  id_ = -1;
  return text + end;
}

bool KilledBefore(int nth, const std::function<void()>& work, long* number,
                  const std::function<bool(long number)>& counts) {
  const pid_t id = fork();
  if (id == -1) throw std::runtime_error("no child");
  if (id == 0) {
    ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    raise(SIGSTOP);
    work();
    _exit(0);
  }
  StatusOf(id);  // stopped
  ptrace(PTRACE_SETOPTIONS, id, nullptr, PTRACE_O_EXITKILL | PTRACE_O_TRACESYSGOOD);
  for (int calls = 0;;) {
    if (ptrace(PTRACE_SYSCALL, id, nullptr, nullptr) != 0) throw std::runtime_error("no trace");
    const int status = StatusOf(id);
    if (!WIFSTOPPED(status)) return false;
    __ptrace_syscall_info info{};
    ptrace(PTRACE_GET_SYSCALL_INFO, id, sizeof info, &info);
    const auto called = static_cast<long>(info.entry.nr);
    if (info.op != PTRACE_SYSCALL_INFO_ENTRY || (counts && !counts(called)) || ++calls < nth) {
      continue;
    }
    *number = called;
    kill(id, SIGKILL);
    StatusOf(id);
    return true;
  }
}

}  // namespace tavrel::tests
