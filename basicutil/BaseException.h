// BaseException: the root of the library's exceptions, holding its message as a Str.
#pragma once

#include <cstdarg>
#include <exception>

#include "basicutil/Str.h"

namespace morvek {

class BaseException : public std::exception {
 public:
  BaseException() noexcept = default;
  explicit BaseException(const char *message) noexcept;
  explicit BaseException(StrSegment message) noexcept;
  // The message is the format rendered with errnum as the errno that %m shows.
  BaseException(int errnum, const char *format, ...) noexcept __attribute__((format(printf, 3, 4)));
  BaseException(const BaseException &other) noexcept;
  BaseException &operator=(const BaseException &other) noexcept;
  ~BaseException() override;

  const char *what() const noexcept override;
  // "BaseException" when the message is empty.
  const Str &getMessage() const noexcept;

 protected:
  // Building the text never throws out of an exception's constructor: on failure it stays empty.
  void setMessage(StrSegment message) noexcept;
  void vformatMessage(int errnum, const char *format, va_list ap) noexcept
      __attribute__((format(printf, 3, 0)));

  Str _message;
};

}  // namespace morvek
