// Threads: the Thread classes with their start handshake, registry and start hooks, and the
// pthread wrappers with their one failure policy.
#pragma once

#include <pthread.h>
#include <sched.h>

#include <atomic>
#include <cstdarg>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <vector>

#include "basicutil/BaseException.h"
#include "basicutil/CrashLog.h"
#include "basicutil/Logger.h"
#include "basicutil/Str.h"
#include "basicutil/Timeval.h"
#include "libzero/create-crash-dump.h"

namespace morvek {

class Thread;
class MutexByte;
class PthreadMutex;

// Thrown by setup calls that cannot go on: mutex or condition set-up, thread creation. The
// message is logged on the "Thread" channel when the exception is made.
class ThreadException : public BaseException {
 public:
  explicit ThreadException(const char *text) noexcept;
  ThreadException(int errnum, const char *format, ...) noexcept
      __attribute__((format(printf, 3, 4)));

 private:
  void logMessage() noexcept;
};

// The fatal path for a failed call on a working primitive: records the failure for the crash
// log, writes it to descriptor 2, logs it at FATAL and aborts.
[[noreturn]] void threadFatalError(const char *call_name, int errnum);

// Set-up failures throw; failures of a working primitive are fatal while threading is alive.
void checkPthreadSetup(int rc, const char *call_name);
void checkPthreadWorking(int rc, const char *call_name);

class PthreadMutex {
 public:
  PthreadMutex();
  ~PthreadMutex();
  PthreadMutex(const PthreadMutex &) = delete;
  PthreadMutex &operator=(const PthreadMutex &) = delete;

  void lock();
  void unlock();
  // True when the lock was taken; a held lock is a plain false.
  bool tryLock();
  // "PthreadMutexImpl:{", the object's bytes in hex, "}".
  void appendDebugString(Str &out) const;

  pthread_mutex_t *native() { return &_mutex; }

 private:
  pthread_mutex_t _mutex;
};

class PthreadCondition {
 public:
  PthreadCondition();
  ~PthreadCondition();
  PthreadCondition(const PthreadCondition &) = delete;
  PthreadCondition &operator=(const PthreadCondition &) = delete;

  void wait(PthreadMutex &mutex);
  // Waits at most the interval, measured on the monotonic clock. False on time-out.
  bool waitRelative(PthreadMutex &mutex, const MonotonicTime &interval);
  void signal();
  void broadcast();

 private:
  pthread_cond_t _cond;
};

class PthreadRWLock {
 public:
  PthreadRWLock();
  ~PthreadRWLock();
  PthreadRWLock(const PthreadRWLock &) = delete;
  PthreadRWLock &operator=(const PthreadRWLock &) = delete;

  void readLock();
  void writeLock();
  void unlock();

 private:
  pthread_rwlock_t _rwlock;
};

class ScopedMutexLock {
 public:
  explicit ScopedMutexLock(PthreadMutex &mutex) : _mutex(&mutex) { _mutex->lock(); }
  ~ScopedMutexLock() { _mutex->unlock(); }
  ScopedMutexLock(const ScopedMutexLock &) = delete;
  ScopedMutexLock &operator=(const ScopedMutexLock &) = delete;

 private:
  PthreadMutex *_mutex;
};

class ScopedReader {
 public:
  ScopedReader() = default;
  ~ScopedReader();
  ScopedReader(const ScopedReader &) = delete;
  ScopedReader &operator=(const ScopedReader &) = delete;
  void setup(PthreadRWLock &rwlock);

 private:
  PthreadRWLock *_rwlock = nullptr;
};

class ScopedWriter {
 public:
  explicit ScopedWriter(PthreadRWLock *rwlock);
  ~ScopedWriter();
  ScopedWriter(const ScopedWriter &) = delete;
  ScopedWriter &operator=(const ScopedWriter &) = delete;

 private:
  PthreadRWLock *_rwlock;
};

// A small set of threads; a token may be held twice.
class ThreadTokenSet {
 public:
  void clear();
  void add(pthread_t token);
  bool contains(pthread_t token);
  void remove(pthread_t token);  // the first match only
  void add(const Thread &thr);
  bool contains(const Thread &thr);
  void remove(const Thread &thr);
  // "{", the tokens in hex separated by ",", "}".
  void appendDebugString(Str &out);

 private:
  PthreadMutex _mutex;
  std::vector<pthread_t> _tokens;
};

void yieldProcessor();
// The reader side of a sequence counter: yields until the word is even, and returns it.
uint32_t waitWhileOdd(const std::atomic<uint32_t> &word);
// Turns the pthread failure checks off and leaves at once, without static destructors.
[[noreturn]] void exitWithoutCleanup(int status);

// A process-wide flag for single-threaded start-up; the scope sets and restores it only while
// no thread has been started.
class ScopedSingleThreadFlag {
 public:
  ScopedSingleThreadFlag();
  ~ScopedSingleThreadFlag();
  ScopedSingleThreadFlag(const ScopedSingleThreadFlag &) = delete;
  ScopedSingleThreadFlag &operator=(const ScopedSingleThreadFlag &) = delete;
  static bool isSet();

 private:
  bool _saved;
};

// Busy-time estimate of a thread over a sliding window.
struct DutyCycleEstimate {
  explicit DutyCycleEstimate(uint64_t window_ns) : _window_ns(window_ns) {}
  uint64_t _window_ns;
  uint64_t _busy_ns = 0;
  uint64_t _window_start_ns = 0;
};

// The per-thread scratch: on the thread's own stack for the life of its body.
struct per_thread_state {
  per_thread_state();
  ~per_thread_state();
  per_thread_state(const per_thread_state &) = delete;
  per_thread_state &operator=(const per_thread_state &) = delete;

  PthreadCondition _cond;
  union {
    struct {
      MutexByte *waitingOn;
      per_thread_state *nextOnChain;
    } s;
  } _u;
  uint64_t _random_state[2];
  DutyCycleEstimate _duty_cycle;
  // The logger's reusable message buffer and the word saying which Logger holds it.
  LoggerStreamAccumulator _log_buffer;
};

class Thread {
 public:
  enum DidJoin : int32_t { DID_NOT_JOIN = 0, DID_JOIN = 1, ALREADY_DESTRUCTING = 2 };
  static constexpr size_t DEFAULT_STACK_SIZE = 2 * 1024 * 1024;

  // Thrown by a body to end its thread quietly.
  class TerminateException : public BaseException {
   public:
    using BaseException::BaseException;
  };

  // What a start hook makes for each thread; destroyed on that thread, last first.
  struct PerThreadObject {
    virtual ~PerThreadObject() = default;
  };
  using PerThreadInitializer = std::function<std::unique_ptr<PerThreadObject>()>;

  // Each constructor starts the OS thread at once; the body waits for go(). Blanks are removed
  // from the formatted name.
  explicit Thread(const char *format, ...) __attribute__((format(printf, 2, 3)));
  Thread(size_t stack_size, const char *format, ...) __attribute__((format(printf, 3, 4)));
  Thread(int policy, int priority, const char *format, ...) __attribute__((format(printf, 4, 5)));
  virtual ~Thread();
  Thread(const Thread &) = delete;
  Thread &operator=(const Thread &) = delete;

  virtual void writeCrashLogNotation(CrashLogWriter &writer);
  virtual void main() = 0;

  void go();
  void join();
  // Joins a started thread, or releases and joins one that never got go().
  void joinEvenIfUnstarted();
  void excludeFromGlobalThreadList();
  bool isCurrent() const;

  const Str &getName() const { return _name; }
  uint64_t getThreadId() const { return _thread_id.load(std::memory_order_relaxed); }
  pthread_t getToken() const { return _token; }
  int getSchedPolicy() const { return _sched_policy; }
  int getSchedPriority() const { return _sched_priority; }
  per_thread_state *getScratch() const { return _scratchp.load(std::memory_order_acquire); }
  // The thread's crash log notation stack, headed by its own description.
  crashlog_notation_perthread_state *crashNotationState() { return &_crash_notations; }

  static bool currentIsMainThread();
  static Thread *getCurrent();
  static const Str &getCurrentThreadName();
  static const char *getCurrentThreadNameCStr() { return getCurrentThreadName().c_str(); }
  static uint64_t getCurrentThreadId();
  static uint32_t threadsActive();
  static void assertNotMultithreadedYet();
  static void addPerThreadInitializer(PerThreadInitializer function);
  // In a forked child: the calling thread becomes the main thread's token, and its busy-time
  // estimate starts afresh.
  static void reinitializeAfterFork();
  static per_thread_state *perThreadScratch();
  // The OS's numeric id of the calling thread.
  static uint64_t osThreadId();

  static void schedPolicyToName(Str &out, int policy);
  static bool schedPolicyFromName(const char *bytes, size_t length, int &policy);

  // Process-wide state; see the lifecycle notes in Thread.cpp.
  static bool main_thread_created;
  static bool have_already_started_threads;
  static std::atomic<uint32_t> _thread_count;
  static std::atomic<bool> _threading_alive;

 protected:
  struct MainThreadTag {};
  explicit Thread(MainThreadTag);
  Thread(size_t stack_size, int policy, int priority, const char *format, va_list ap)
      __attribute__((format(printf, 5, 0)));

  void setUpCrashNotations();
  void runStartHooks();
  void destroyPerThreadObjects();

 private:
  class CountAccounter {
   public:
    explicit CountAccounter(bool is_main);
    ~CountAccounter();
    bool isMain() const { return _is_main; }

   private:
    bool _is_main;
  };

  struct ThreadNotation {
    crashlog_notation_entry entry;
    Thread *owner;
  };

  void initialize(size_t stack_size, int policy, int priority, const char *format, va_list ap);
  void startOSThread(size_t stack_size);
  static void *callMain(void *arg);
  bool wait_for_go();
  void _remove_from_global_thread_list();
  void _callMainAndDiscardTerminateException();
  static void renderThreadNotation(crashlog_notation_entry *e, crash_log_writer *w);

  friend class MainThread;
  friend class ThreadFunction;
  friend void forEachListedThread(const std::function<void(Thread &)> &fn);

  std::atomic<int32_t> _did_join;
  pthread_t _token;
  Str _name;
  std::atomic<uint64_t> _thread_id;
  std::atomic<bool> _ready_to_run;
  bool _in_global_thread_list;
  Thread **_global_thread_list_prevp;
  Thread *_global_thread_list_next;
  PthreadCondition _cond;
  std::vector<std::unique_ptr<PerThreadObject>> _per_thread_objects;
  CountAccounter _count_accounter;
  crashlog_notation_perthread_state _crash_notations;
  ThreadNotation _thread_notation;
  PthreadMutex _signal_context_lock;
  std::atomic<void *> _inSignalContextActor;
  std::atomic<bool> _signal_context_busy;
  // Atomic because the crash log reads it from whichever thread is dying.
  std::atomic<per_thread_state *> _scratchp;
  int32_t _sched_priority;
  int32_t _sched_policy;
};

// Calls fn for each thread in the global list, under the list's lock.
void forEachListedThread(const std::function<void(Thread &)> &fn);

// The process's first thread. Made once, in main, before any other Thread.
class MainThread : public Thread {
 public:
  MainThread();
  ~MainThread() override;

 private:
  std::optional<per_thread_state> _main_scratch;
};

// A MainThread whose body is whatever called the constructor.
class EmptyMainThread : public MainThread {
 public:
  EmptyMainThread() = default;
  void main() override;
};

// A thread whose body is a function object.
class ThreadFunction : public Thread {
 public:
  using Body = std::function<void()>;
  // The name is taken as it is, not as a format; blanks are removed as for any thread.
  ThreadFunction(Body body, const char *name);
  ThreadFunction(Body body, size_t stack_size, const char *name);
  // Joins (or releases) the thread unless the owner already joined it.
  ~ThreadFunction() override;
  // Raises std::bad_function_call when the body is empty.
  void main() override;

 private:
  Body _body;
};

}  // namespace morvek
