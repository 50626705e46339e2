#include "testutil.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <stdexcept>

extern char **environ;

namespace testutil {

namespace {

long long nowMs() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts.tv_sec * 1000LL + ts.tv_nsec / 1000000;
}

// Bytes read past the end of a line, per descriptor.
std::map<int, std::string> &pending() {
  static std::map<int, std::string> p;
  return p;
}

}  // namespace

ChildProcess spawnWithPipes(const std::vector<std::string> &argv) {
  int out[2], err[2];
  if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) throw std::runtime_error("pipe");
  posix_spawn_file_actions_t fa;
  posix_spawn_file_actions_init(&fa);
  posix_spawn_file_actions_adddup2(&fa, out[1], 1);
  posix_spawn_file_actions_adddup2(&fa, err[1], 2);
  std::vector<char *> args;
  for (const std::string &a : argv) args.push_back(const_cast<char *>(a.c_str()));
  args.push_back(nullptr);
  ChildProcess child;
  int rc = posix_spawn(&child.pid, args[0], &fa, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&fa);
  close(out[1]);
  close(err[1]);
  if (rc != 0) throw std::runtime_error("posix_spawn failed");
  child.out_fd = out[0];
  child.err_fd = err[0];
  pending().erase(child.out_fd);
  pending().erase(child.err_fd);
  return child;
}

bool readLine(int fd, std::string &line, int timeout_ms) {
  std::string &buf = pending()[fd];
  long long deadline = nowMs() + timeout_ms;
  for (;;) {
    size_t nl = buf.find('\n');
    if (nl != std::string::npos) {
      line = buf.substr(0, nl);
      buf.erase(0, nl + 1);
      return true;
    }
    long long left = deadline - nowMs();
    if (left <= 0) return false;
    struct pollfd p = {fd, POLLIN, 0};
    int r = poll(&p, 1, static_cast<int>(left));
    if (r < 0 && errno == EINTR) continue;
    if (r <= 0) return false;
    char tmp[4096];
    ssize_t n = read(fd, tmp, sizeof tmp);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    buf.append(tmp, static_cast<size_t>(n));
  }
}

int waitWithTimeout(pid_t pid, int timeout_ms) {
  long long deadline = nowMs() + timeout_ms;
  for (;;) {
    int status;
    pid_t r = waitpid(pid, &status, WNOHANG);
    if (r == pid) return status;
    if (r < 0 && errno != EINTR) return -1;
    if (nowMs() >= deadline) {
      kill(pid, SIGKILL);
      waitpid(pid, &status, 0);
      return -1;
    }
    usleep(5000);
  }
}

RunResult runToCompletion(const std::vector<std::string> &argv, int timeout_ms) {
  ChildProcess child = spawnWithPipes(argv);
  RunResult result;
  long long deadline = nowMs() + timeout_ms;
  bool out_open = true, err_open = true;
  while ((out_open || err_open) && nowMs() < deadline) {
    struct pollfd p[2] = {{out_open ? child.out_fd : -1, POLLIN, 0},
                          {err_open ? child.err_fd : -1, POLLIN, 0}};
    int r = poll(p, 2, 100);
    if (r <= 0) continue;
    for (int i = 0; i < 2; ++i) {
      if (p[i].revents == 0) continue;
      char tmp[4096];
      ssize_t n = read(p[i].fd, tmp, sizeof tmp);
      if (n <= 0) {
        (i == 0 ? out_open : err_open) = false;
      } else {
        (i == 0 ? result.out : result.err).append(tmp, static_cast<size_t>(n));
      }
    }
  }
  close(child.out_fd);
  close(child.err_fd);
  result.status = waitWithTimeout(child.pid, static_cast<int>(deadline - nowMs()) + 1000);
  return result;
}

std::string makeTempDir() {
  const char *base = getenv("TMPDIR");
  std::string tmpl = std::string(base && *base ? base : "/tmp") + "/morvek-test-XXXXXX";
  if (mkdtemp(tmpl.data()) == nullptr) throw std::runtime_error("mkdtemp");
  return tmpl;
}

StderrCapture::StderrCapture() {
  fflush(stderr);
  _saved = dup(2);
  char path[] = "/tmp/morvek-stderr-XXXXXX";
  _fd = mkstemp(path);
  if (_saved < 0 || _fd < 0) throw std::runtime_error("StderrCapture");
  unlink(path);
  dup2(_fd, 2);
}

StderrCapture::~StderrCapture() { finish(); }

std::string StderrCapture::finish() {
  std::string text;
  if (_fd < 0) return text;
  fflush(stderr);
  dup2(_saved, 2);
  close(_saved);
  lseek(_fd, 0, SEEK_SET);
  char buf[4096];
  ssize_t n;
  while ((n = read(_fd, buf, sizeof buf)) > 0) text.append(buf, static_cast<size_t>(n));
  close(_fd);
  _fd = -1;
  return text;
}

ScopedTz::ScopedTz(const char *zone) {
  const char *old = getenv("TZ");
  _had = old != nullptr;
  if (_had) _saved = old;
  setenv("TZ", zone, 1);
  tzset();
}

ScopedTz::~ScopedTz() {
  if (_had) {
    setenv("TZ", _saved.c_str(), 1);
  } else {
    unsetenv("TZ");
  }
  tzset();
}

}  // namespace testutil
