// Installs the crash logger and dies in the way its first argument names, so that tests can read
// the crash log it leaves. Usage: crash-victim MODE DIR|- [ARG]
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <atomic>
#include <stdexcept>
#include <string>

#include "basicutil/BaseException.h"
#include "basicutil/CrashLog.h"
#include "basicutil/Thread.h"

using namespace morvek;

// ---- An allocator that refuses to work once the process is dying ------------------------------
#ifndef __has_feature
#define __has_feature(x) 0
#endif
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__) || \
    __has_feature(address_sanitizer) || __has_feature(thread_sanitizer)
#define VICTIM_CAN_WATCH_MALLOC 0
#else
#define VICTIM_CAN_WATCH_MALLOC 1
#endif

static volatile sig_atomic_t allocation_forbidden = 0;

// The faults below are the point; the sanitizers must not catch them first.
#define VICTIM_UNCHECKED __attribute__((no_sanitize("undefined", "address")))

#if VICTIM_CAN_WATCH_MALLOC
extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void *__libc_memalign(size_t, size_t);
void __libc_free(void *);

static void refuse() {
  static const char text[] = "ALLOCATION DURING CRASH REPORT\n";
  ssize_t ignored = write(2, text, sizeof text - 1);
  (void)ignored;
  _exit(99);
}
void *malloc(size_t n) {
  if (allocation_forbidden) refuse();
  return __libc_malloc(n);
}
void *calloc(size_t n, size_t m) {
  if (allocation_forbidden) refuse();
  return __libc_calloc(n, m);
}
void *realloc(void *p, size_t n) {
  if (allocation_forbidden) refuse();
  return __libc_realloc(p, n);
}
void *memalign(size_t a, size_t n) {
  if (allocation_forbidden) refuse();
  return __libc_memalign(a, n);
}
int posix_memalign(void **out, size_t a, size_t n) {
  if (allocation_forbidden) refuse();
  *out = __libc_memalign(a, n);
  return *out != nullptr ? 0 : ENOMEM;
}
void *aligned_alloc(size_t a, size_t n) { return memalign(a, n); }
void free(void *p) {
  if (allocation_forbidden && p != nullptr) refuse();
  __libc_free(p);
}
}
#endif

namespace {

const char *mode_arg = "";

// Through a volatile pointer, so that the compiler can't see the null and drop the store.
VICTIM_UNCHECKED __attribute__((noinline)) void segvNull() {
  volatile int *volatile p = nullptr;
  *p = 1;
}

// Deep enough to exhaust any stack; the bound only keeps the compiler from calling it endless.
VICTIM_UNCHECKED __attribute__((noinline)) int recurse(long depth) {
  volatile char pad[1024];
  pad[0] = static_cast<char>(depth);
  if (depth > (1L << 40)) return pad[0];
  return recurse(depth + 1) + pad[0];
}

// A notation writing `pieces` blocks of 10 KiB, or blocks forever when pieces is 0.
size_t bulk_pieces = 0;

void renderBulk(crashlog_notation_entry *, crash_log_writer *w) {
  static char block[10 * 1024];
  memset(block, 'x', sizeof block);
  for (size_t i = 0; bulk_pieces == 0 || i < bulk_pieces; ++i)
    crashlog_write(w, block, sizeof block);
}

void attachBulk(size_t pieces) {
  static crashlog_notation_entry bulk;
  bulk.ent.render = &renderBulk;
  bulk.ent.destruct = nullptr;
  bulk_pieces = pieces;
  crashlog_notation_attach(&bulk);
}

// Runs body on a worker thread named "victim worker" and waits for it.
void inWorker(ThreadFunction::Body body) {
  ThreadFunction worker(std::move(body), "victim worker");
  worker.go();
  worker.join();
}

}  // namespace

VICTIM_UNCHECKED int main(int argc, char **argv) {
  if (argc < 3) return 2;
  const std::string mode = argv[1];
  const std::string dir = argv[2];
  mode_arg = argc > 3 ? argv[3] : "";

  // Sanitizer builds replace the allocator, and with it glibc's own heap checks.
  if (mode == "can-watch-malloc") return VICTIM_CAN_WATCH_MALLOC ? 0 : 1;

  // Installed before MainThread exists, as a program's first act would do.
  int rc = dir == "-" ? installCrashLoggerToStderr() : installCrashLogger(Str(dir));
  if (rc != 0) return 3;
  EmptyMainThread main_thread;
  addCrashLogNote("victim mode %s", mode.c_str());
  addCrashLogNote("a permanent note");
  addCrashLogNote(Str(""));  // renders nothing, so no line either

  ScopedPerThreadCrashLogConstantStringNotation outer("outer scope");
  { ScopedPerThreadCrashLogConstantStringNotation gone("popped scope"); }
  ScopedPerThreadCrashLogConstantStrlikeNotation inner(StrSegment("inner scope"));

  if (mode == "segv-null") {
    segvNull();
  } else if (mode == "segv-wild") {
    *reinterpret_cast<volatile int *>(uintptr_t{0x5a5a0000}) = 1;
  } else if (mode == "segv-readonly") {
    void *p = mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile int *>(p) = 1;
  } else if (mode == "stack-overflow") {
    return recurse(0);
  } else if (mode == "thread-stack-overflow") {
    inWorker([] { recurse(0); });
  } else if (mode == "sent") {
    // As from `kill -SEGV` by another process: the report comes, and then death by the signal,
    // not the sleep's end. ARG is the signal, prefixed "q" for sigqueue.
    const bool queue = mode_arg[0] == 'q';
    const int sig = atoi(mode_arg + (queue ? 1 : 0));
    if (queue) {
      sigqueue(getpid(), sig, sigval{});
    } else {
      kill(getpid(), sig);
    }
    sleep(3);
    return 6;
  } else if (mode == "sigbus") {
    std::string path = dir + "/truncated";
    int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0600);
    if (fd < 0 || ftruncate(fd, 8192) != 0) return 4;
    volatile char *p = static_cast<char *>(mmap(nullptr, 8192, PROT_READ, MAP_SHARED, fd, 0));
    if (ftruncate(fd, 0) != 0) return 4;
    return p[4096];
  } else if (mode == "sigill") {
    __builtin_trap();
  } else if (mode == "sigfpe") {
    volatile int zero = 0;
    return 10 / zero;
  } else if (mode == "abort") {
    abort();
  } else if (mode == "stderr-tail") {
    std::string path = dir + "/stderr.txt";
    crash_log_set_stderr_file(path.c_str());
    if (strcmp(mode_arg, "terminate") == 0) std::terminate();
    abort();
  } else if (mode == "thread-exception") {
    inWorker([] {
      ScopedPerThreadCrashLogConstantStringNotation in_worker("worker scope");
      throw ThreadException("worker gave up");
    });
  } else if (mode == "thread-segv") {
    inWorker([] {
      ScopedPerThreadCrashLogConstantStringNotation in_worker("worker scope");
      segvNull();
    });
  } else if (mode == "thread-fatal") {
    inWorker([] { threadFatalError("pthread_mutex_lock", EINVAL); });
  } else if (mode == "terminate") {
    std::terminate();
  } else if (mode == "throw-int") {
    throw 42;
  } else if (mode == "throw-bad-alloc") {
    throw std::bad_alloc();
  } else if (mode == "heap-corruption") {
    char *volatile p = static_cast<char *>(malloc(64));
    free(p);
    free(p);
  } else if (mode == "no-malloc") {
    allocation_forbidden = 1;
    segvNull();
  } else if (mode == "alloc-check") {
    // Proves the guard itself works: this allocation must be refused.
    allocation_forbidden = 1;
    void *(*volatile alloc)(size_t) = &malloc;
    return alloc(16) != nullptr ? 6 : 7;
  } else if (mode == "fd-limit") {
    struct rlimit rl = {32, 32};
    if (setrlimit(RLIMIT_NOFILE, &rl) != 0) return 4;
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    segvNull();
  } else if (mode == "overflow") {
    attachBulk(60);
    segvNull();
  } else if (mode == "looping") {
    attachBulk(0);
    segvNull();
  } else if (mode == "corrupt-list") {
    static crashlog_notation_string_entry looped;
    looped.e.ent.render = &crashlog_notation_write_string;
    looped.e.ent.destruct = &free_crashlog_notation_destruct_func;
    looped.text = "L";
    looped.length = 1;
    crashlog_notation_attach(&looped.e);
    looped.e.next = &looped.e;
    segvNull();
  } else {
    return 2;  // an unknown mode
  }
  return 5;
}
