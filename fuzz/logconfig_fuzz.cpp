// The configuration reader on arbitrary text: every line is taken apart, appenders are made and
// given properties, category values are applied to a scratch channel. Nothing is opened: files
// are only named. Input: one byte of options (section, restrictions), then the file.
#include <cstdint>
#include <cstring>

#include "basicutil/LogConfig.h"
#include "basicutil/UnicodeStream.h"

using namespace morvek;

namespace {

class MemoryStream : public ReadableUnicodeStream {
 public:
  MemoryStream(const uint8_t *data, size_t size) : _p(data), _end(data + size) {}
  int read_byte() override { return _p < _end ? *_p++ : -1; }

 private:
  const uint8_t *_p;
  const uint8_t *_end;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size < 1) return 0;
  static bool quiet = (Logger::setQuietStderr(true), true);
  (void)quiet;
  LogConfigRequest request;
  request.path = "fuzz.cfg";
  request.section = (data[0] & 1) ? "Main" : nullptr;
  request.allowed_properties = (data[0] & 2) ? LOG_PROP_ALL : (data[0] & LOG_PROP_ALL);
  request.substitutions.emplace("$X", "value");
  request.substitutions.emplace("$", "$$");
  request.suspended_paths.insert("/var");

  MemoryStream in(data + 1, size - 1);
  DeferredLogConfList root, errors, categories;
  parse_one_log_cfg_file(in, nullptr, request, root, errors, categories);
  static LogChannel scratch;
  if (root.head() != nullptr) apply_log_category_value(&scratch, root.head()->text);
  for (const DeferredLogConf *d = categories.head(); d != nullptr; d = d->next) {
    size_t eq = d->text.find('=');
    if (eq != Str::npos) apply_log_category_value(&scratch, StrSegment(d->text).substr(eq + 1));
  }
  scratch.appenders.clear();
  LogFileAppender::resetAll(true);
  return 0;
}
