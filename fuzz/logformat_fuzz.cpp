// Layout patterns: any bytes compile, and rendering a message through them in both forms never
// faults. Input: one byte of options (serialization, size limit), the pattern up to the first
// NUL, then the message.
#include <cstdint>
#include <cstring>

#include "basicutil/LogFormat.h"
#include "basicutil/Logger.h"

using namespace morvek;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static Logger logger("LogFormatFuzz");
  uint8_t options = data[0];
  const char *rest = reinterpret_cast<const char *>(data + 1);
  size_t n = size - 1;
  const char *nul = static_cast<const char *>(memchr(rest, 0, n));
  size_t plen = nul != nullptr ? static_cast<size_t>(nul - rest) : n;
  StrSegment message = nul != nullptr ? StrSegment(nul + 1, n - plen - 1) : StrSegment();

  LogFormat format(StrSegment(rest, plen));
  LogEvent event{Timeval(1700000000 + options * 7919, options * 3), &logger, options % 10};
  uint64_t limits[] = {16384, 0, 45, 100, 799, 800};
  Str out;
  format.render(out, event, (options & 1) ? LOG_SERIALIZATION_JSON : LOG_SERIALIZATION_TEXT,
                limits[(options >> 1) % 6], message);
  // Escaping first, as an appender does.
  LoggerEscaped escaped(message, true);
  format.render(out, event, LOG_SERIALIZATION_TEXT, 100, escaped._escape(options & 2));
  return 0;
}
