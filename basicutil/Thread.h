// Threads: the Thread classes with their start handshake, registry and start hooks, and the
// pthread wrappers with their one failure policy.
#pragma once

#include <pthread.h>
#include <sched.h>
#include <signal.h>

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

// What fraction of the recent past a thread was busy, from 0 to 1, over a moving window. Every
// thread's scratch holds one; the scopes that drive it and the worked examples are in
// DutyCycle.h. All fields are under _lock, so any thread may read an estimate.
class DutyCycleEstimate {
 public:
  static constexpr uint64_t DEFAULT_WINDOW_NS = 15000000000ull;
  // Where the estimates read the present; tests install one they control.
  using Clock = MonotonicTime (*)();

  // Starts as though idle for a whole window.
  explicit DutyCycleEstimate(uint64_t window_ns = DEFAULT_WINDOW_NS);
  ~DutyCycleEstimate();
  DutyCycleEstimate(const DutyCycleEstimate &) = delete;
  DutyCycleEstimate &operator=(const DutyCycleEstimate &) = delete;

  // The calling thread's estimate; a thread with no Thread object shares one static estimate,
  // which is only allowed while the process has a single thread.
  static DutyCycleEstimate &perThread();
  // Back to the constructor's state (a forked child starts afresh).
  void resetDutyCycle();
  // The value for the present, whether or not a scope holds the estimate.
  double estimateNow();
  bool isClaimed();

  // A null clock restores the monotonic clock.
  static void setClock(Clock clock);
  static MonotonicTime now();

 private:
  friend class ScopedDutyCycleClaimThread;
  friend class Thread;
  double estimateAtLocked(const MonotonicTime &now) const;
  // Folds the time up to t into _estimate, then counts on as busy or idle.
  void setBusyAtLocked(const MonotonicTime &t, bool busy);

  double _estimate;
  bool _busy;
  bool _claimed;
  uint64_t _window;
  MonotonicTime _last_update;
  double _inverse_window;
  PthreadMutex _lock;
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

  // Called for each running thread under the global thread lock: it must not block, nor
  // create, start, join or destroy a thread.
  class iterate_running_threads_callback {
   public:
    virtual ~iterate_running_threads_callback() = default;
    virtual void visit(Thread &thr) = 0;
  };

  // Code that another thread makes this one run inside its SIGUSR1 handler, on its own stack.
  // It gets what the handler got and must be async-signal-safe: no allocation, no locks, no
  // logging. It belongs to the caller of runInUnixSignalContext.
  class InSignalContextActor {
   public:
    virtual ~InSignalContextActor() = default;
    virtual void act(int signo, siginfo_t *info, void *ucontext) = 0;
  };

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

  // Walkers of the running threads: those listed (told to go, not excluded) and not yet joined
  // or being joined. A thread appears once its body is about to start and is gone once a join
  // began. The global lock is held for the whole walk.
  static void iterateEachRunning(iterate_running_threads_callback &callback);
  template <typename F>
  static void iterateEachRunningWith(F &&f) {
    struct Adapter : iterate_running_threads_callback {
      explicit Adapter(F &fn) : _fn(fn) {}
      void visit(Thread &thr) override { _fn(thr); }
      F &_fn;
    } adapter(f);
    iterateEachRunning(adapter);
  }
  // The first running thread named exactly name, or null. Names hold no blanks, so a name with
  // one never matches. The pointer is a hint: nothing keeps the thread alive after the call.
  static Thread *getThreadObject(StrSegment name);
  // The first running thread the predicate accepts, or null; an empty predicate raises
  // std::bad_function_call. The same hint as above.
  static Thread *findThread(const std::function<bool(Thread &)> &predicate);
  // The MainThread object while it exists, else null.
  static Thread *getMainThread();

  // Makes this thread run actor->act in signal context and waits, spinning, until it finished.
  // True when the actor ran; false when it could not be delivered: the thread has ended its
  // body (or is leaving without one), or MainThread is gone. Callers are serialised per target.
  // A caller that is itself a target runs, while it waits, an actor parked on it whose signal
  // has not come through (a sanitizer holds signals back from a thread that makes no calls it
  // watches), so that callers aiming at each other always finish; act then gets SIGUSR1, a
  // siginfo as pthread_kill makes it and the caller's own context.
  // Never aimed at the calling thread; the target must not be joined while this runs. The
  // target must not block SIGUSR1, which belongs to this library.
  //   Example: a thread blocked in read(2) on an empty pipe runs the actor at once and goes
  //   back to its read (SA_RESTART); a thread that returned from its body gives false.
  bool runInUnixSignalContext(InSignalContextActor *actor);

  // The thread's busy fraction for the present, while a ScopedDutyCycleClaimThread holds its
  // estimate: then true and out is set. False, out untouched, with no scope or no scratch.
  // Only for a thread whose body is running.
  bool getDutyCycle(double &out) const;

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
  static Thread *firstRunning(const std::function<bool(Thread &)> &predicate, bool started);
  static void signalContextHandler(int signo, siginfo_t *info, void *ucontext);
  // The handler's work on an actor taken from this thread's slot.
  void finishSignalActor(void *actor, int signo, siginfo_t *info, void *ucontext);
  // Runs an actor parked on this, the calling thread, outside the handler.
  void runParkedSignalActor();
  static void installSignalContextHandler();
  static void closeSignalActors();
  bool takeBackSignalActor();
  void closeSignalContext();

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
  // Set by the thread as it leaves; from then on no actor is sent to it.
  std::atomic<bool> _signal_context_closed;
  // Whether the last delivered actor ran, as opposed to being refused by a leaving thread.
  std::atomic<bool> _signal_context_ran;
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
