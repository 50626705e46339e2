#include "basicutil/BaseException.h"

#include <cerrno>

namespace morvek {

namespace {
const Str &emptyMessageText() {
  static const Str text("BaseException");
  return text;
}
}  // namespace

BaseException::BaseException(const char *message) noexcept { setMessage(message); }

BaseException::BaseException(StrSegment message) noexcept { setMessage(message); }

BaseException::BaseException(int errnum, const char *format, ...) noexcept {
  va_list ap;
  va_start(ap, format);
  vformatMessage(errnum, format, ap);
  va_end(ap);
}

BaseException::BaseException(const BaseException &other) noexcept : std::exception(other) {
  setMessage(other._message);
}

BaseException &BaseException::operator=(const BaseException &other) noexcept {
  if (this != &other) setMessage(other._message);
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

void BaseException::vformatMessage(int errnum, const char *format, va_list ap) noexcept {
  int saved_errno = errno;
  try {
    errno = errnum;
    _message.vprintf(format, ap);
  } catch (...) {
    _message.clear();
  }
  errno = saved_errno;
}

}  // namespace morvek
