#include "basicutil/Logger.h"

#include <unistd.h>

#include <cerrno>

#include "basicutil/Str.h"

namespace morvek {

Logger::Logger(const char *name) : _name(name), _level(LOG_INFO) {}

void Logger::log(int level, const char *format, ...) {
  if (!isEnabled(level)) return;
  va_list ap;
  va_start(ap, format);
  vlog(level, format, ap);
  va_end(ap);
}

void Logger::vlog(int level, const char *format, va_list ap) {
  (void)level;
  int saved_errno = errno;
  try {
    Str line;
    line.vappendf(format, ap);
    // One record is one line: a newline inside the message must not start a fake record.
    for (size_t i = 0; i < line.size(); ++i) {
      if (line[i] == '\n') line.replace(i, 1, "\\n"), ++i;
    }
    line.push_back('\n');
    const char *p = line.data();
    size_t left = line.size();
    while (left > 0) {
      ssize_t n = ::write(2, p, left);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) break;
      p += n;
      left -= static_cast<size_t>(n);
    }
  } catch (...) {
    // Logging never throws into its caller.
  }
  errno = saved_errno;
}

}  // namespace morvek
