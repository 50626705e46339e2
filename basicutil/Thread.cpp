#include "basicutil/Thread.h"

#include <sys/uio.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "basicutil/CrashLog.h"
#include "basicutil/Logger.h"
#include "basicutil/MutexByte.h"
#include "basicutil/StaticStrHashSet.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

Logger thread_logger("Thread");

// Guards the thread list and each thread's _did_join, _ready_to_run and in-list fields.
PthreadMutex _global_thread_lock;
Thread *GLOBAL_THREAD_LIST_ROOT = nullptr;

constinit thread_local Thread *activeThreads = nullptr;

pthread_t _main_thread_token;
uint64_t _main_thread_id;
pthread_attr_t _default_thread_attr;

std::vector<Thread::PerThreadInitializer> &perThreadInitializers() {
  static std::vector<Thread::PerThreadInitializer> initializers;
  return initializers;
}

const Str &mainThreadName() {
  static const Str name("MainThread");
  return name;
}

const Str &unknownThreadName() {
  static const Str name("Unknown Thread");
  return name;
}

// What the fatal path leaves for the crash log. The call name "none" means nothing failed.
struct FatalThreadError {
  const char *call_name = "none";
  int errnum = 0;
  uint32_t threads_active = 0;
  char thread_name[64] = {0};
};
FatalThreadError fatal_thread_error;

bool single_thread_flag = false;

std::atomic<Thread *> main_thread_object{nullptr};

// Actors handed over and not yet finished; the top bit closes the door for good once MainThread
// is going away.
std::atomic<uint64_t> _signal_actors_in_flight{0};
constexpr uint64_t SIGNAL_ACTORS_CLOSED = uint64_t{1} << 63;

void copyTruncated(char *dst, size_t cap, const char *src) {
  size_t n = strlen(src);
  if (n >= cap) n = cap - 1;
  memcpy(dst, src, n);
  dst[n] = '\0';
}

}  // namespace

bool Thread::main_thread_created = false;
bool Thread::have_already_started_threads = false;
std::atomic<uint32_t> Thread::_thread_count{0};
std::atomic<bool> Thread::_threading_alive{true};

// ---------------------------------------------------------------------------------------------
// Failure policy

ThreadException::ThreadException(const char *text) noexcept : BaseException(text) { logMessage(); }

ThreadException::ThreadException(int errnum, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vformatMessage(errnum, format, ap);
  va_end(ap);
  logMessage();
}

void ThreadException::logMessage() noexcept {
  try {
    thread_logger.error("%s", getMessage().c_str());
  } catch (...) {
  }
}

void threadFatalError(const char *call_name, int errnum) {
  uint32_t active = Thread::threadsActive();
  const char *thread_name = Thread::getCurrentThreadNameCStr();
  fatal_thread_error.call_name = call_name;
  fatal_thread_error.errnum = errnum;
  fatal_thread_error.threads_active = active;
  copyTruncated(fatal_thread_error.thread_name, sizeof fatal_thread_error.thread_name, thread_name);

  // Plain stdio into a stack buffer: the heap or the failed lock may be what broke.
  char errbuf[128];
  const char *errtext = strerror_r(errnum, errbuf, sizeof errbuf);
  char text[512];
  int n = snprintf(text, sizeof text, "Fatal thread error: %s: %s; %u threads active, in %s",
                   call_name, errtext, active, thread_name);
  if (n < 0) n = 0;
  if (static_cast<size_t>(n) >= sizeof text) n = sizeof text - 1;
  struct iovec iov[2] = {{text, static_cast<size_t>(n)}, {const_cast<char *>("\n"), 1}};
  ssize_t ignored = writev(2, iov, 2);
  (void)ignored;
  try {
    thread_logger.fatal("%s", text);
  } catch (...) {
  }
  abort();
}

void checkPthreadSetup(int rc, const char *call_name) {
  if (rc == 0) return;
  throw ThreadException(rc, "%s: about to throw a ThreadException: %s: %m; %u threads active",
                        Thread::getCurrentThreadNameCStr(), call_name, Thread::threadsActive());
}

void checkPthreadWorking(int rc, const char *call_name) {
  if (rc != 0 && Thread::_threading_alive.load(std::memory_order_relaxed)) {
    threadFatalError(call_name, rc);
  }
}

// ---------------------------------------------------------------------------------------------
// Wrappers

PthreadMutex::PthreadMutex() {
  checkPthreadSetup(pthread_mutex_init(&_mutex, nullptr), "pthread_mutex_init");
}
PthreadMutex::~PthreadMutex() {
  checkPthreadWorking(pthread_mutex_destroy(&_mutex), "pthread_mutex_destroy");
}
void PthreadMutex::lock() {
  checkPthreadWorking(pthread_mutex_lock(&_mutex), "pthread_mutex_lock");
}
void PthreadMutex::unlock() {
  checkPthreadWorking(pthread_mutex_unlock(&_mutex), "pthread_mutex_unlock");
}

bool PthreadMutex::tryLock() {
  int rc = pthread_mutex_trylock(&_mutex);
  if (rc == 0) return true;
  if (rc == EBUSY || rc == EAGAIN) return false;
  checkPthreadWorking(rc, "pthread_mutex_trylock");
  return false;
}

void PthreadMutex::appendDebugString(Str &out) const {
  static const char hex[] = "0123456789abcdef";
  out.append("PthreadMutexImpl:{");
  const unsigned char *p = reinterpret_cast<const unsigned char *>(&_mutex);
  for (size_t i = 0; i < sizeof _mutex; ++i) {
    out.push_back(hex[p[i] >> 4]);
    out.push_back(hex[p[i] & 15]);
  }
  out.push_back('}');
}

PthreadCondition::PthreadCondition() {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  int rc = pthread_cond_init(&_cond, &attr);
  pthread_condattr_destroy(&attr);
  checkPthreadSetup(rc, "pthread_cond_init");
}
PthreadCondition::~PthreadCondition() {
  checkPthreadWorking(pthread_cond_destroy(&_cond), "pthread_cond_destroy");
}
void PthreadCondition::wait(PthreadMutex &mutex) {
  checkPthreadWorking(pthread_cond_wait(&_cond, mutex.native()), "pthread_cond_wait");
}

bool PthreadCondition::waitRelative(PthreadMutex &mutex, const MonotonicTime &interval) {
  struct timespec deadline;
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += interval.seconds();
  deadline.tv_nsec += interval.nanoseconds();
  if (deadline.tv_nsec >= 1000000000) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1000000000;
  } else if (deadline.tv_nsec < 0) {
    deadline.tv_sec -= 1;
    deadline.tv_nsec += 1000000000;
  }
  int rc = pthread_cond_clockwait(&_cond, mutex.native(), CLOCK_MONOTONIC, &deadline);
  if (rc == ETIMEDOUT) return false;
  checkPthreadWorking(rc, "pthread_cond_clockwait");
  return true;
}

void PthreadCondition::signal() {
  checkPthreadWorking(pthread_cond_signal(&_cond), "pthread_cond_signal");
}
void PthreadCondition::broadcast() {
  checkPthreadWorking(pthread_cond_broadcast(&_cond), "pthread_cond_broadcast");
}

PthreadRWLock::PthreadRWLock() {
  checkPthreadSetup(pthread_rwlock_init(&_rwlock, nullptr), "pthread_rwlock_init");
}
PthreadRWLock::~PthreadRWLock() {
  checkPthreadWorking(pthread_rwlock_destroy(&_rwlock), "pthread_rwlock_destroy");
}
void PthreadRWLock::readLock() {
  checkPthreadWorking(pthread_rwlock_rdlock(&_rwlock), "pthread_rwlock_rdlock");
}
void PthreadRWLock::writeLock() {
  checkPthreadWorking(pthread_rwlock_wrlock(&_rwlock), "pthread_rwlock_wrlock");
}
void PthreadRWLock::unlock() {
  checkPthreadWorking(pthread_rwlock_unlock(&_rwlock), "pthread_rwlock_unlock");
}

ScopedReader::~ScopedReader() {
  if (_rwlock != nullptr) _rwlock->unlock();
}

void ScopedReader::setup(PthreadRWLock &rwlock) {
  MV_ASSERT(_rwlock == nullptr);
  _rwlock = &rwlock;
  _rwlock->readLock();
}

ScopedWriter::ScopedWriter(PthreadRWLock *rwlock) : _rwlock(rwlock) {
  MV_ASSERT(rwlock != nullptr);
  _rwlock->writeLock();
}

ScopedWriter::~ScopedWriter() {
  MV_ASSERT(_rwlock != nullptr);
  _rwlock->unlock();
}

void ThreadTokenSet::clear() {
  ScopedMutexLock lock(_mutex);
  _tokens.clear();
}

void ThreadTokenSet::add(pthread_t token) {
  ScopedMutexLock lock(_mutex);
  _tokens.push_back(token);
}

bool ThreadTokenSet::contains(pthread_t token) {
  ScopedMutexLock lock(_mutex);
  for (pthread_t t : _tokens) {
    if (pthread_equal(t, token)) return true;
  }
  return false;
}

void ThreadTokenSet::remove(pthread_t token) {
  ScopedMutexLock lock(_mutex);
  for (auto it = _tokens.begin(); it != _tokens.end(); ++it) {
    if (pthread_equal(*it, token)) {
      _tokens.erase(it);
      return;
    }
  }
}

void ThreadTokenSet::add(const Thread &thr) { add(thr.getToken()); }
bool ThreadTokenSet::contains(const Thread &thr) { return contains(thr.getToken()); }
void ThreadTokenSet::remove(const Thread &thr) { remove(thr.getToken()); }

void ThreadTokenSet::appendDebugString(Str &out) {
  ScopedMutexLock lock(_mutex);
  out.push_back('{');
  for (size_t i = 0; i < _tokens.size(); ++i) {
    if (i != 0) out.push_back(',');
    out.appendf("%lx", static_cast<unsigned long>(_tokens[i]));
  }
  out.push_back('}');
}

void yieldProcessor() { sched_yield(); }

uint32_t waitWhileOdd(const std::atomic<uint32_t> &word) {
  uint32_t v;
  while (((v = word.load(std::memory_order_acquire)) & 1) != 0) sched_yield();
  return v;
}

void exitWithoutCleanup(int status) {
  Thread::_threading_alive.store(false);
  _exit(status);
}

ScopedSingleThreadFlag::ScopedSingleThreadFlag() {
  if (Thread::have_already_started_threads) {
    _saved = false;
    return;
  }
  _saved = single_thread_flag;
  single_thread_flag = true;
}

ScopedSingleThreadFlag::~ScopedSingleThreadFlag() {
  if (!Thread::have_already_started_threads) single_thread_flag = _saved;
}

bool ScopedSingleThreadFlag::isSet() { return single_thread_flag; }

// ---------------------------------------------------------------------------------------------
// Scratch

per_thread_state::per_thread_state()
    : _u{{nullptr, nullptr}},
      _random_state{0, 0},
      _duty_cycle(DutyCycleEstimate::DEFAULT_WINDOW_NS) {}

per_thread_state::~per_thread_state() { MV_ASSERT(_u.s.waitingOn == nullptr); }

// ---------------------------------------------------------------------------------------------
// Thread

Thread::CountAccounter::CountAccounter(bool is_main) : _is_main(is_main) {
  if (!is_main) {
    MV_ASSERT(main_thread_created);
    _thread_count.fetch_add(1);
  }
}

Thread::CountAccounter::~CountAccounter() {
  if (!_is_main) _thread_count.fetch_sub(1);
}

Thread::Thread(const char *format, ...)
    : _did_join(DID_NOT_JOIN),
      _token(),
      _thread_id(0),
      _ready_to_run(false),
      _in_global_thread_list(true),
      _global_thread_list_prevp(nullptr),
      _global_thread_list_next(nullptr),
      _count_accounter(false) {
  va_list ap;
  va_start(ap, format);
  initialize(DEFAULT_STACK_SIZE, SCHED_OTHER, 0, format, ap);
  va_end(ap);
}

Thread::Thread(size_t stack_size, const char *format, ...)
    : _did_join(DID_NOT_JOIN),
      _token(),
      _thread_id(0),
      _ready_to_run(false),
      _in_global_thread_list(true),
      _global_thread_list_prevp(nullptr),
      _global_thread_list_next(nullptr),
      _count_accounter(false) {
  va_list ap;
  va_start(ap, format);
  initialize(stack_size, SCHED_OTHER, 0, format, ap);
  va_end(ap);
}

Thread::Thread(int policy, int priority, const char *format, ...)
    : _did_join(DID_NOT_JOIN),
      _token(),
      _thread_id(0),
      _ready_to_run(false),
      _in_global_thread_list(true),
      _global_thread_list_prevp(nullptr),
      _global_thread_list_next(nullptr),
      _count_accounter(false) {
  va_list ap;
  va_start(ap, format);
  initialize(DEFAULT_STACK_SIZE, policy, priority, format, ap);
  va_end(ap);
}

Thread::Thread(size_t stack_size, int policy, int priority, const char *format, va_list ap)
    : _did_join(DID_NOT_JOIN),
      _token(),
      _thread_id(0),
      _ready_to_run(false),
      _in_global_thread_list(true),
      _global_thread_list_prevp(nullptr),
      _global_thread_list_next(nullptr),
      _count_accounter(false) {
  initialize(stack_size, policy, priority, format, ap);
}

void Thread::initialize(size_t stack_size, int policy, int priority, const char *format,
                        va_list ap) {
  _crash_notations = {nullptr, nullptr};
  _thread_notation = {};
  _inSignalContextActor.store(nullptr);
  _signal_context_busy.store(false);
  _signal_context_closed.store(false);
  _signal_context_ran.store(false);
  _scratchp.store(nullptr);
  _sched_priority = priority;
  _sched_policy = policy;
  _name.vprintf(format, ap);
  _name.removeAll(' ');
  startOSThread(stack_size);
}

void Thread::setUpCrashNotations() {
  _thread_notation.entry.ent.render = &Thread::renderThreadNotation;
  _thread_notation.entry.ent.destruct = [](crashlog_notation_entry *) {};
  _thread_notation.entry.next = nullptr;
  _thread_notation.entry.prev = nullptr;
  _thread_notation.owner = this;
  _crash_notations.root = &_thread_notation.entry;
  _crash_notations.last = &_thread_notation.entry;
}

MV_CRASH_PATH void Thread::renderThreadNotation(crashlog_notation_entry *e, crash_log_writer *w) {
  ThreadNotation *n = reinterpret_cast<ThreadNotation *>(e);
  CrashLogWriter writer(w);
  n->owner->writeCrashLogNotation(writer);
}

void Thread::startOSThread(size_t stack_size) {
  if (!main_thread_created) throw ThreadException("Thread created before main thread!");
  have_already_started_threads = true;
  setUpCrashNotations();

  Thread *creator = activeThreads;
  int rc;
  if (stack_size == DEFAULT_STACK_SIZE && _sched_policy == SCHED_OTHER &&
      (creator == nullptr || creator->_sched_policy == SCHED_OTHER)) {
    rc = pthread_create(&_token, &_default_thread_attr, &Thread::callMain, this);
  } else {
    // pthread_create copies what it needs; the object is not destroyed, as glibc's set-up of
    // size, inheritance, policy and priority allocates nothing.
    pthread_attr_t attr_storage;
    pthread_attr_t *attr = &attr_storage;
    pthread_attr_init(attr);
    if (pthread_attr_setstacksize(attr, stack_size) != 0) {
      thread_logger.warn("cannot override thread stack size: pthread_attr_setstacksize(): %m");
    }
    if (pthread_attr_setinheritsched(attr, PTHREAD_EXPLICIT_SCHED) != 0) {
      thread_logger.warn(
          "cannot override thread inherit sched: pthread_attr_setinheritsched(): %m");
    }
    if (pthread_attr_setschedpolicy(attr, _sched_policy) != 0) {
      thread_logger.warn(
          "cannot override thread scheduling policy: pthread_attr_setschedpolicy(): %m");
    }
    struct sched_param param = {};
    param.sched_priority = _sched_priority;
    if (pthread_attr_setschedparam(attr, &param) != 0) {
      thread_logger.warn(
          "cannot override thread scheduling parameter: pthread_attr_setschedparam(): %m");
    }
    rc = pthread_create(&_token, attr, &Thread::callMain, this);
  }
  if (rc != 0) {
    throw ThreadException(rc,
                          "%s: about to throw a ThreadException: pthread_create: %m; %u threads "
                          "active. Trying to create %s",
                          getCurrentThreadNameCStr(), threadsActive(), _name.c_str());
  }
}

void *Thread::callMain(void *arg) {
  Thread *instance = static_cast<Thread *>(arg);
  // A stack overflow on this thread must still find room for the crash report.
  crash_altstack_install();
  per_thread_state scratch;
  instance->_scratchp.store(&scratch, std::memory_order_release);
  // The kernel keeps at most 15 bytes of a name.
  char osname[16];
  size_t n = instance->_name.size() < 15 ? instance->_name.size() : 15;
  memcpy(osname, instance->_name.data(), n);
  osname[n] = '\0';
  pthread_setname_np(pthread_self(), osname);
  instance->_thread_id.store(osThreadId(), std::memory_order_relaxed);
  MV_ASSERT(activeThreads == nullptr);
  activeThreads = instance;
  if (instance->wait_for_go()) {
    instance->_callMainAndDiscardTerminateException();
    if (instance->_in_global_thread_list) instance->_remove_from_global_thread_list();
  }
  instance->closeSignalContext();
  MV_ASSERT(instance->_scratchp.load() == &scratch);
  instance->_scratchp.store(nullptr);
  crash_altstack_release();
  return nullptr;
}

bool Thread::wait_for_go() {
  ScopedMutexLock lock(_global_thread_lock);
  while (!_ready_to_run.load()) _cond.wait(_global_thread_lock);
  if (_did_join.load() == ALREADY_DESTRUCTING) return false;
  MV_ASSERT(_global_thread_list_prevp == nullptr);
  if (_in_global_thread_list) {
    Thread *n = GLOBAL_THREAD_LIST_ROOT;
    _global_thread_list_next = n;
    if (n != nullptr) {
      MV_ASSERT(n->_global_thread_list_prevp == &GLOBAL_THREAD_LIST_ROOT);
      n->_global_thread_list_prevp = &_global_thread_list_next;
    }
    GLOBAL_THREAD_LIST_ROOT = this;
    _global_thread_list_prevp = &GLOBAL_THREAD_LIST_ROOT;
  }
  return true;
}

void Thread::_remove_from_global_thread_list() {
  ScopedMutexLock lock(_global_thread_lock);
  MV_ASSERT(_global_thread_list_prevp != nullptr);
  MV_ASSERT(*_global_thread_list_prevp == this);
  Thread *n = _global_thread_list_next;
  *_global_thread_list_prevp = n;
  if (n != nullptr) {
    MV_ASSERT(n->_global_thread_list_prevp == &_global_thread_list_next);
    n->_global_thread_list_prevp = _global_thread_list_prevp;
  }
}

void Thread::_callMainAndDiscardTerminateException() {
  MV_ASSERT(!currentIsMainThread());
  try {
    runStartHooks();
    main();
    destroyPerThreadObjects();
  } catch (Thread::TerminateException &e) {
    thread_logger.debug("caught Thread::TerminateException: %s", e.what());
  }
}

void Thread::runStartHooks() {
  for (const PerThreadInitializer &init : perThreadInitializers()) {
    _per_thread_objects.push_back(init());
  }
}

void Thread::destroyPerThreadObjects() {
  while (!_per_thread_objects.empty()) _per_thread_objects.pop_back();
}

void Thread::go() {
  MV_ASSERT(!_ready_to_run.load());
  ScopedMutexLock lock(_global_thread_lock);
  _ready_to_run.store(true);
  _cond.broadcast();
}

void Thread::join() {
  MV_ASSERT(_did_join.load() == DID_NOT_JOIN);
  {
    ScopedMutexLock lock(_global_thread_lock);
    _did_join.store(DID_JOIN);
  }
  checkPthreadWorking(pthread_join(_token, nullptr), "pthread_join");
}

void Thread::joinEvenIfUnstarted() {
  _global_thread_lock.lock();
  MV_ASSERT(_did_join.load() == DID_NOT_JOIN);
  if (_ready_to_run.load()) {
    _did_join.store(DID_JOIN);
    _global_thread_lock.unlock();
    checkPthreadWorking(pthread_join(_token, nullptr), "pthread_join");
    return;
  }
  _ready_to_run.store(true);
  _did_join.store(ALREADY_DESTRUCTING);
  _cond.broadcast();
  _global_thread_lock.unlock();
  checkPthreadWorking(pthread_join(_token, nullptr), "pthread_join");
  ScopedMutexLock lock(_global_thread_lock);
  MV_ASSERT(_did_join.load() == ALREADY_DESTRUCTING);
  _did_join.store(DID_JOIN);
}

void Thread::excludeFromGlobalThreadList() {
  MV_ASSERT(!_ready_to_run.load());
  MV_ASSERT(_global_thread_list_prevp == nullptr);
  MV_ASSERT(_global_thread_list_next == nullptr);
  ScopedMutexLock lock(_global_thread_lock);
  _in_global_thread_list = false;
}

Thread::~Thread() {
  if (!_per_thread_objects.empty()) {
    // Only the main thread may inherit another thread's leftovers.
    if (main_thread_created) MV_ASSERT(currentIsMainThread());
    destroyPerThreadObjects();
  }
  if (_threading_alive.load()) {
    _global_thread_lock.lock();
    if (_did_join.load() != DID_JOIN) {
      // A started thread must have been joined by now.
      MV_ASSERT(_did_join.load() == DID_NOT_JOIN);
      MV_ASSERT(!_ready_to_run.load());
      _ready_to_run.store(true);
      _did_join.store(ALREADY_DESTRUCTING);
      _cond.broadcast();
      _global_thread_lock.unlock();
      checkPthreadWorking(pthread_join(_token, nullptr), "pthread_join");
    } else {
      _global_thread_lock.unlock();
    }
  }
}

bool Thread::isCurrent() const { return pthread_equal(_token, pthread_self()) != 0; }

bool Thread::currentIsMainThread() {
  if (!main_thread_created) return true;
  return pthread_equal(pthread_self(), _main_thread_token) != 0;
}

Thread *Thread::getCurrent() { return activeThreads; }

MV_CRASH_PATH const Str &Thread::getCurrentThreadName() {
  if (activeThreads != nullptr) return activeThreads->_name;
  if (!main_thread_created || pthread_equal(pthread_self(), _main_thread_token)) {
    return mainThreadName();
  }
  return unknownThreadName();
}

uint64_t Thread::getCurrentThreadId() {
  if (activeThreads != nullptr) return activeThreads->getThreadId();
  if (!main_thread_created || pthread_equal(pthread_self(), _main_thread_token)) {
    return main_thread_created ? _main_thread_id : osThreadId();
  }
  return osThreadId();
}

uint64_t Thread::osThreadId() {
  pid_t tid = gettid();
  return tid > 0 ? static_cast<uint64_t>(tid) : static_cast<uint64_t>(getpid());
}

uint32_t Thread::threadsActive() { return main_thread_created ? _thread_count.load() + 1 : 1; }

void Thread::assertNotMultithreadedYet() { MV_ASSERT(!have_already_started_threads); }

void Thread::addPerThreadInitializer(PerThreadInitializer function) {
  assertNotMultithreadedYet();
  perThreadInitializers().push_back(function);
  if (main_thread_created && activeThreads != nullptr) {
    activeThreads->_per_thread_objects.push_back(function());
  }
}

void Thread::reinitializeAfterFork() {
  _main_thread_token = pthread_self();
  if (activeThreads != nullptr && activeThreads->_count_accounter.isMain()) {
    activeThreads->_token = _main_thread_token;
  }
  crashLogPremainThreadAfterFork();
  if (per_thread_state *scratch = perThreadScratch()) scratch->_duty_cycle.resetDutyCycle();
}

per_thread_state *Thread::perThreadScratch() {
  return activeThreads != nullptr ? activeThreads->_scratchp.load(std::memory_order_relaxed)
                                  : nullptr;
}

void Thread::schedPolicyToName(Str &out, int policy) {
  switch (policy) {
    case SCHED_OTHER:
      out.append("other");
      break;
    case SCHED_FIFO:
      out.append("fifo");
      break;
    case SCHED_RR:
      out.append("round_robin");
      break;
    default:
      out.append("none");
      break;
  }
}

bool Thread::schedPolicyFromName(const char *bytes, size_t length, int &policy) {
  static const struct {
    const char *name;
    int policy;
  } names[] = {{"other", SCHED_OTHER}, {"fifo", SCHED_FIFO}, {"round_robin", SCHED_RR}};
  for (const auto &n : names) {
    if (strlen(n.name) == length && memcmp(n.name, bytes, length) == 0) {
      policy = n.policy;
      return true;
    }
  }
  return false;
}

MV_CRASH_PATH void Thread::writeCrashLogNotation(CrashLogWriter &w) {
  if (strcmp(fatal_thread_error.call_name, "none") != 0) {
    w.write("Dying on fatal thread error ");
    w.writeSigned(fatal_thread_error.errnum);
    w.write(" from ");
    w.write(fatal_thread_error.call_name);
    w.write(", thread ");
    w.write(fatal_thread_error.thread_name);
    w.writeChar('\n');
  }
  w.write("Thread: \"");
  w.write(_name.data(), _name.size());
  w.write("\", did_join=");
  w.writeSigned(_did_join.load());
  w.write(", ready_to_run=");
  w.writeFlag(_ready_to_run.load());
  w.write(", main_thread=");
  w.writeFlag(_count_accounter.isMain());
  w.write(", token=");
  w.writeHexBytes(&_token, sizeof _token);
  w.writeChar('\n');
  if (per_thread_state *scratch = _scratchp.load(std::memory_order_acquire)) {
    w.write("MutexByte: ");
    MutexByte::writeWaiting(w, *scratch);
    w.writeChar('\n');
  }
}

void forEachListedThread(const std::function<void(Thread &)> &fn) {
  ScopedMutexLock lock(_global_thread_lock);
  for (Thread *t = GLOBAL_THREAD_LIST_ROOT; t != nullptr; t = t->_global_thread_list_next) fn(*t);
}

// ---------------------------------------------------------------------------------------------
// Walking the running threads

Thread *Thread::firstRunning(const std::function<bool(Thread &)> &predicate, bool started) {
  ScopedMutexLock lock(_global_thread_lock);
  for (Thread *thr = GLOBAL_THREAD_LIST_ROOT; thr != nullptr; thr = thr->_global_thread_list_next) {
    if (thr->_did_join.load() != DID_NOT_JOIN) continue;
    if (started) MV_ASSERT(thr->_ready_to_run.load());
    if (predicate(*thr)) return thr;
  }
  return nullptr;
}

void Thread::iterateEachRunning(iterate_running_threads_callback &callback) {
  firstRunning(
      [&](Thread &thr) {
        callback.visit(thr);
        return false;
      },
      true);
}

Thread *Thread::getThreadObject(StrSegment name) {
  return firstRunning([&](Thread &thr) { return thr._name.segment() == name; }, true);
}

Thread *Thread::findThread(const std::function<bool(Thread &)> &predicate) {
  if (!predicate) throw std::bad_function_call();
  return firstRunning(predicate, false);
}

Thread *Thread::getMainThread() { return main_thread_object.load(); }

// ---------------------------------------------------------------------------------------------
// Signal-context actors
//
// A caller parks the actor in the target's _inSignalContextActor and sends SIGUSR1; whoever
// takes the actor out of that slot first owns the rest: the handler runs it, the caller (on a
// failed send) or the leaving thread (closeSignalContext) refuses it. Either way the owner
// clears _signal_context_busy, which the caller spins on.

void Thread::signalContextHandler(int signo, siginfo_t *info, void *ucontext) {
  int saved_errno = errno;
  Thread *self = activeThreads;
  if (self != nullptr) {
    void *actor = self->_inSignalContextActor.exchange(nullptr);
    if (actor != nullptr) self->finishSignalActor(actor, signo, info, ucontext);
  }
  errno = saved_errno;
}

void Thread::finishSignalActor(void *actor, int signo, siginfo_t *info, void *ucontext) {
  static_cast<InSignalContextActor *>(actor)->act(signo, info, ucontext);
  _signal_context_ran.store(true);
  _signal_actors_in_flight.fetch_sub(1);
  _signal_context_busy.store(false);
}

// No new actor can be parked here before this one is finished: its caller holds our
// _signal_context_lock until then. The signal that comes later finds the slot empty.
void Thread::runParkedSignalActor() {
  if (_inSignalContextActor.load(std::memory_order_relaxed) == nullptr) return;
  void *actor = _inSignalContextActor.exchange(nullptr);
  if (actor == nullptr) return;
  int saved_errno = errno;
  siginfo_t info;
  memset(&info, 0, sizeof info);
  info.si_signo = SIGUSR1;
  info.si_code = SI_TKILL;
  info.si_pid = getpid();
  info.si_uid = getuid();
  ucontext_t context;
  finishSignalActor(actor, SIGUSR1, &info, getcontext(&context) == 0 ? &context : nullptr);
  errno = saved_errno;
}

void Thread::installSignalContextHandler() {
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_sigaction = &Thread::signalContextHandler;
  sa.sa_flags = SA_SIGINFO | SA_RESTART;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGUSR1, &sa, nullptr);
}

void Thread::closeSignalActors() {
  // Closes only when nothing is in flight; there is no waiting for actors.
  uint64_t expected = 0;
  while (_signal_actors_in_flight.compare_exchange_strong(expected, SIGNAL_ACTORS_CLOSED)) {
    expected = 0;
  }
  struct sigaction sa;
  memset(&sa, 0, sizeof sa);
  sa.sa_handler = SIG_DFL;
  sigemptyset(&sa.sa_mask);
  sigaction(SIGUSR1, &sa, nullptr);
}

bool Thread::takeBackSignalActor() {
  if (_inSignalContextActor.exchange(nullptr) == nullptr) return false;
  _signal_actors_in_flight.fetch_sub(1);
  _signal_context_busy.store(false);
  return true;
}

// Runs on the thread itself once its body is over: a signal sent later might find the thread
// with signals blocked on its way out and never be handled, leaving the caller spinning.
void Thread::closeSignalContext() {
  _signal_context_closed.store(true);
  takeBackSignalActor();
}

bool Thread::runInUnixSignalContext(InSignalContextActor *actor) {
  MV_ASSERT(actor != nullptr);
  MV_ASSERT(!isCurrent());
  Thread *self = activeThreads;
  // A caller with no Thread object is no target and may block; one that is spins, so that it
  // can run what is parked on it.
  if (self != nullptr) {
    while (!_signal_context_lock.tryLock()) {
      self->runParkedSignalActor();
      sched_yield();
    }
  } else {
    _signal_context_lock.lock();
  }
  struct Unlock {
    PthreadMutex &mutex;
    ~Unlock() { mutex.unlock(); }
  } unlock{_signal_context_lock};
  if ((_signal_actors_in_flight.fetch_add(1) + 1) & SIGNAL_ACTORS_CLOSED) return false;
  if (_signal_context_closed.load()) {
    _signal_actors_in_flight.fetch_sub(1);
    return false;
  }
  bool wasBusy = _signal_context_busy.exchange(true);
  MV_ASSERT(!wasBusy);
  _signal_context_ran.store(false);
  void *prevActor = _inSignalContextActor.exchange(actor);
  MV_ASSERT(prevActor == nullptr);
  // Checked again after parking the actor: a thread closing in between has either taken the
  // actor back already, or will find it is ours to take.
  bool sent = !_signal_context_closed.load() && pthread_kill(_token, SIGUSR1) == 0;
  if (!sent && takeBackSignalActor()) return false;
  for (uint32_t spins = 1; _signal_context_busy.exchange(true); ++spins) {
    if (self != nullptr) self->runParkedSignalActor();
    if (spins % 1024 != 0) continue;
    // A signal that reached the thread before it knew its Thread object was dropped by the
    // handler; send again while the actor still waits, unless the thread is leaving.
    if (_inSignalContextActor.load() != nullptr) {
      if (_signal_context_closed.load() || pthread_kill(_token, SIGUSR1) != 0) {
        if (takeBackSignalActor()) return false;
      }
    }
    sched_yield();
  }
  MV_ASSERT(_inSignalContextActor.load(std::memory_order_relaxed) == nullptr);
  bool ran = _signal_context_ran.load();
  _signal_context_busy.store(false);
  return ran;
}

// ---------------------------------------------------------------------------------------------
// MainThread

Thread::Thread(MainThreadTag)
    : _did_join(DID_JOIN),
      _token(pthread_self()),
      _name(mainThreadName()),
      _thread_id(osThreadId()),
      _ready_to_run(true),
      _in_global_thread_list(false),
      _global_thread_list_prevp(nullptr),
      _global_thread_list_next(nullptr),
      _count_accounter(true),
      _crash_notations{nullptr, nullptr},
      _thread_notation{},
      _inSignalContextActor(nullptr),
      _signal_context_busy(false),
      _signal_context_closed(false),
      _signal_context_ran(false),
      _scratchp(nullptr),
      _sched_priority(0),
      _sched_policy(SCHED_OTHER) {}

MainThread::MainThread() : Thread(MainThreadTag{}) {
  if (main_thread_created) throw ThreadException("Main Thread created twice!");
  _thread_count.store(0);
  (void)clock();
  // Static string sets queued during static initialisation are finalised here, while the
  // process still has one thread.
  StaticStrHashSet::finalizeAll();
  checkPthreadWorking(pthread_attr_init(&_default_thread_attr), "pthread_attr_init");
  if (pthread_attr_setstacksize(&_default_thread_attr, DEFAULT_STACK_SIZE) != 0) {
    thread_logger.warn("cannot override thread stack size: pthread_attr_setstacksize(): %m");
  }
  _main_thread_token = pthread_self();
  _main_thread_id = getThreadId();
  main_thread_created = true;
  crash_altstack_install();
  setUpCrashNotations();
  runStartHooks();
  _main_scratch.emplace();
  _scratchp.store(&*_main_scratch);
  MV_ASSERT(activeThreads == nullptr);
  activeThreads = this;
  main_thread_object.store(this);
  installSignalContextHandler();
}

MainThread::~MainThread() {
  closeSignalActors();
  main_thread_object.store(nullptr);
  // From here on the order of static destruction is nobody's: pthread failures are ignored.
  _threading_alive.store(false);
  MV_ASSERT(activeThreads == this);
  activeThreads = nullptr;
  _scratchp.store(nullptr);
  _main_scratch.reset();
}

void EmptyMainThread::main() {
  zero_assert_fail("EmptyMainThread::main must never be called", __func__, __FILE__, __LINE__);
}

// ---------------------------------------------------------------------------------------------
// ThreadFunction

ThreadFunction::ThreadFunction(Body body, const char *name)
    : Thread("%s", name), _body(std::move(body)) {}

ThreadFunction::ThreadFunction(Body body, size_t stack_size, const char *name)
    : Thread(stack_size, "%s", name), _body(std::move(body)) {}

ThreadFunction::~ThreadFunction() {
  if (_did_join.load() == DID_NOT_JOIN) joinEvenIfUnstarted();
}

void ThreadFunction::main() {
  if (!_body) throw std::bad_function_call();
  _body();
}

}  // namespace morvek
