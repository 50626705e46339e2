// BaseException, the root of the library's exceptions, and the terminate handler that reports
// an uncaught exception at the moment of death.
#pragma once

#include <cstdarg>
#include <exception>

#include "basicutil/Str.h"
#include "libzero/create-crash-dump.h"

namespace morvek {

class CrashLogWriter;

// Nothing that builds or assigns the message throws: on failure the message is left empty, and
// an empty message reads as "BaseException".
class BaseException : public std::exception {
 public:
  struct UseErrno {};
  static constexpr UseErrno USE_ERRNO{};

  BaseException() noexcept = default;
  explicit BaseException(const char *message) noexcept;
  explicit BaseException(const Str &message) noexcept;
  explicit BaseException(StrSegment message) noexcept;
  // The format rendered with errnum as what %m shows.
  BaseException(int errnum, const char *format, ...) noexcept __attribute__((format(printf, 3, 4)));
  // The prefix (may be null) followed by the rendering.
  BaseException(const char *prefix, int errnum, const char *format, ...) noexcept
      __attribute__((format(printf, 4, 5)));
  // The same with the current errno.
  BaseException(UseErrno, const char *prefix, const char *format, ...) noexcept
      __attribute__((format(printf, 4, 5)));
  BaseException(const BaseException &other) noexcept;
  BaseException(BaseException &&other) noexcept;
  BaseException &operator=(const BaseException &other) noexcept;
  BaseException &operator=(BaseException &&other) noexcept;
  ~BaseException() override;

  const char *what() const noexcept override;
  const Str &getMessage() const noexcept;
  void setMessage(StrSegment message) noexcept;

  void appendTo(Str &out) const;
  void write(CrashLogWriter &writer) const;

 protected:
  void vformatMessage(int errnum, const char *format, va_list ap) noexcept
      __attribute__((format(printf, 3, 0)));
  void vformatMessage(const char *prefix, int errnum, const char *format, va_list ap) noexcept
      __attribute__((format(printf, 4, 0)));

  Str _message;
};

// What the terminate handler found; the crash log reads it.
enum TerminateState : int {
  TERMINATE_NOTHING_YET = 0,
  TERMINATE_STARTED = 1,
  TERMINATE_NO_EXCEPTION = 2,
  TERMINATE_BAD_ALLOC = 3,
  TERMINATE_STD_EXCEPTION = 4,
  TERMINATE_FOREIGN_EXCEPTION = 5,
};
TerminateState terminateState();

// Reports the uncaught exception on descriptor 2 by plain write and aborts.
[[noreturn]] void terminateHandler();
// The crash log's block about an uncaught exception; non-zero when there was one to report.
int crashLogExceptionReport(crash_log_writer *w);

}  // namespace morvek
