#include "basicutil/BaseException.h"

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>
#include <typeinfo>

#include "basicutil/CrashLog.h"

namespace morvek {

namespace {

const Str &emptyMessageText() {
  static const Str text("BaseException");
  return text;
}

}  // namespace

BaseException::BaseException(const char *message) noexcept { setMessage(message); }

BaseException::BaseException(const Str &message) noexcept { setMessage(message); }

BaseException::BaseException(StrSegment message) noexcept { setMessage(message); }

BaseException::BaseException(int errnum, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vformatMessage(nullptr, errnum, format, ap);
  va_end(ap);
}

BaseException::BaseException(const char *prefix, int errnum, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vformatMessage(prefix, errnum, format, ap);
  va_end(ap);
}

BaseException::BaseException(UseErrno, const char *prefix, const char *format, ...) noexcept {
  int errnum = errno;
  va_list ap;
  va_start(ap, format);
  vformatMessage(prefix, errnum, format, ap);
  va_end(ap);
}

BaseException::BaseException(const BaseException &other) noexcept : std::exception(other) {
  setMessage(other._message);
}

BaseException::BaseException(BaseException &&other) noexcept
    : std::exception(other), _message(std::move(other._message)) {
  other._message.clear();
}

BaseException &BaseException::operator=(const BaseException &other) noexcept {
  if (this != &other) setMessage(other._message);
  return *this;
}

BaseException &BaseException::operator=(BaseException &&other) noexcept {
  if (this != &other) {
    _message = std::move(other._message);
    other._message.clear();
  }
  return *this;
}

BaseException::~BaseException() = default;

const char *BaseException::what() const noexcept { return getMessage().c_str(); }

const Str &BaseException::getMessage() const noexcept {
  return _message.empty() ? emptyMessageText() : _message;
}

void BaseException::setMessage(StrSegment message) noexcept {
  try {
    _message.assign(message._data, message._len);
  } catch (...) {
    _message.clear();
  }
}

void BaseException::appendTo(Str &out) const { out.append(getMessage()); }

void BaseException::write(CrashLogWriter &writer) const { writer.write(getMessage()); }

void BaseException::vformatMessage(int errnum, const char *format, va_list ap) noexcept {
  vformatMessage(nullptr, errnum, format, ap);
}

void BaseException::vformatMessage(const char *prefix, int errnum, const char *format,
                                   va_list ap) noexcept {
  int saved_errno = errno;
  try {
    _message.clear();
    if (prefix != nullptr) _message.append(prefix);
    errno = errnum;
    _message.vappendf(format, ap);
  } catch (...) {
    _message.clear();
  }
  errno = saved_errno;
}

// ---- The terminate handler ----------------------------------------------------------------------

namespace {

// Zero-initialised before any constructor runs, so a terminate during static initialisation
// still finds a sane state.
std::atomic<int> _terminate_state{TERMINATE_NOTHING_YET};
const void *_terminate_exception_addr = nullptr;
const std::type_info *_terminate_typeinfo = nullptr;
const char *_terminate_what = nullptr;

void say(const char *text) {
  ssize_t ignored = ::write(2, text, strlen(text));
  (void)ignored;
}

}  // namespace

TerminateState terminateState() { return static_cast<TerminateState>(_terminate_state.load()); }

void terminateHandler() {
  if (_terminate_state.exchange(TERMINATE_STARTED) != TERMINATE_NOTHING_YET) {
    say("terminate called recursively\n");
    abort();
  }
  const std::type_info *type = abi::__cxa_current_exception_type();
  if (type == nullptr) {
    _terminate_state.store(TERMINATE_NO_EXCEPTION);
    say("terminate called without an active exception\n");
    abort();
  }
  _terminate_typeinfo = type;
  say("terminate called after throwing an instance of '");
  say(type->name());
  say("'\n");
  try {
    throw;
  } catch (const std::bad_alloc &e) {
    _terminate_state.store(TERMINATE_BAD_ALLOC);
    say("  Memory allocation failed\n");
    _terminate_exception_addr = &e;
  } catch (const std::exception &e) {
    _terminate_state.store(TERMINATE_STD_EXCEPTION);
    _terminate_what = e.what();
    say("  what():  ");
    say(_terminate_what);
    say("\n");
    _terminate_exception_addr = &e;
  } catch (...) {
    _terminate_state.store(TERMINATE_FOREIGN_EXCEPTION);
    say("  Exception type doesn't inherit from std::exception!\n");
  }
  abort();
}

int crashLogExceptionReport(crash_log_writer *w) {
  CrashLogWriter writer(w);
  int state = _terminate_state.load();
  if (state == TERMINATE_NO_EXCEPTION) {
    writer.write(" C++ exception handling was triggered while no exception active!\n");
    return 1;
  }
  if (state < TERMINATE_BAD_ALLOC || state > TERMINATE_FOREIGN_EXCEPTION) return 0;
  writer.write(" C++ exception:");
  if (_terminate_exception_addr != nullptr) {
    writer.write("\n  exception_addr=");
    writer.writePointer(_terminate_exception_addr);
  }
  if (_terminate_typeinfo != nullptr) {
    writer.write("\n  typeinfo=");
    writer.writePointer(_terminate_typeinfo);
    if (const char *name = _terminate_typeinfo->name()) {
      writer.write(", name=");
      writer.write(name);
    }
  }
  if (state == TERMINATE_FOREIGN_EXCEPTION) {
    writer.write("\n  Exception did not appear to be a std::exception subclass!\n");
  } else if (state == TERMINATE_BAD_ALLOC) {
    writer.write("\n  Exception indicates memory allocation failure\n");
  } else {
    writer.write("\n  what(): ");
    writer.write(_terminate_what);
    writer.writeChar('\n');
  }
  return 1;
}

}  // namespace morvek
