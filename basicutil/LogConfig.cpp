#include "basicutil/LogConfig.h"

#include <strings.h>

#include <cerrno>

#include "basicutil/LogInternal.h"
#include "basicutil/UnicodeStream.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

bool isBlank(char c) { return c == ' ' || c == '\t'; }

size_t skipBlanks(StrSegment s, size_t i) {
  while (i < s.size() && isBlank(s[i])) ++i;
  return i;
}

// The position of the first blank, tab, "=" or (with dot) "." from i on.
size_t keyEnd(StrSegment s, size_t i, bool dot) {
  while (i < s.size() && !isBlank(s[i]) && s[i] != '=' && !(dot && s[i] == '.')) ++i;
  return i;
}

// The path of the override file: "-local" before the leaf's last ".", or at the end.
Str localPath(const Str &path) {
  size_t slash = path.rfind('/');
  size_t leaf = slash == Str::npos ? 0 : slash + 1;
  size_t dot = path.rfind('.');
  Str out(path);
  if (dot != Str::npos && dot > leaf) {
    out.insert(dot, "-local");
  } else {
    out.append("-local");
  }
  return out;
}

struct Parser {
  ReadableUnicodeStream &file;
  const char *path;
  const LogConfigRequest &request;
  DeferredLogConfList &root, &errors, &categories;
  uint32_t line_no = 0;
  bool section_counts = true;

  void defer(DeferredLogConfList &list, uint32_t line, StrSegment text,
             int type = DeferredLogConf::LOG_CONF_PARSE_ERROR) {
    auto *d = new DeferredLogConf;
    d->file = path;
    d->line = line;
    d->text = Str(text);
    d->error_type = type;
    list.push(d);
  }

  void run() {
    Str physical;
    while (file.getLine(physical)) {
      ++line_no;
      if (!handle(physical)) return;
    }
  }

  // False when the rest of the file is to be ignored.
  bool handle(const Str &physical) {
    uint32_t first_line = line_no;
    Str joined(physical);
    // Cut at "#" or NUL; an XML comment is removed, and what follows its end is scanned again.
    size_t end = 0;
    for (;;) {
      while (end < joined.size() && joined[end] != '#' && joined[end] != '\0' &&
             !StrSegment(joined).substr(end).startsWith("<!--")) {
        ++end;
      }
      if (end == joined.size() || joined[end] != '<') break;
      Str rest = joined.substr(end + 4);
      joined.resize(end);
      size_t close;
      while ((close = rest.find("-->")) == Str::npos) {
        if (!file.getLine(rest)) {
          defer(errors, first_line, StrSegment(), DeferredLogConf::LOG_CONF_UNTERMINATED_COMMENT);
          return false;
        }
        ++line_no;
      }
      joined.append(rest, close + 3);
    }
    size_t stop = end;
    while (stop > 0 && isBlank(joined[stop - 1])) --stop;
    size_t start = skipBlanks(joined, 0);
    if (start >= stop) return true;
    StrSegment content(joined.data() + start, stop - start);

    if (content[0] == '[') {
      if (request.section == nullptr) return false;
      // The name runs to the end of the line, comments included.
      Str name(StrSegment(joined).substr(start + 1));
      while (!name.empty() && (isBlank(name.back()) || name.back() == ']')) name.pop_back();
      section_counts = strcasecmp(name.c_str(), request.section) == 0;
      return true;
    }
    if (!section_counts) return true;
    if (content.startsWith("log4cpp.")) content = content.substr(8);
    if (content.empty()) return true;
    size_t k = keyEnd(content, 0, true);
    if (k == content.size()) {
      defer(errors, first_line, content);
      return true;
    }
    StrSegment key = content.substr(0, k);
    if (key == "category" && content[k] == '.') {
      defer(categories, first_line, content.substr(k + 1));
    } else if (key == "appender" && content[k] == '.') {
      appenderLine(content, k + 1, physical, first_line);
    } else if (key == "rootCategory") {
      size_t eq = skipBlanks(content, k);
      if (eq == content.size() || content[eq] != '=') {
        defer(errors, first_line, content);
      } else if (DeferredLogConf *r = root.head()) {
        r->file = path;
        r->line = first_line;
        r->text = Str(content.substr(eq + 1));
      } else {
        defer(root, first_line, content.substr(eq + 1));
      }
    } else {
      defer(errors, first_line, content);
    }
    return true;
  }

  void appenderLine(StrSegment content, size_t i, const Str &physical, uint32_t line) {
    size_t n = keyEnd(content, i, true);
    if (n == i || n == content.size()) {
      defer(errors, line, content);
      return;
    }
    LogFileAppender *a = LogFileAppender::find(content.substr(i, n - i), true);
    if (content[n] != '.') {
      // "appender.NAME = ClassName": the class means nothing here.
      size_t eq = skipBlanks(content, n);
      if (eq == content.size() || content[eq] != '=') defer(errors, line, content);
      return;
    }
    size_t kstart = n + 1;
    size_t kend = keyEnd(content, kstart, false);
    size_t eq = skipBlanks(content, kend);
    if (eq == content.size() || content[eq] != '=') {
      defer(errors, line, content);
      return;
    }
    size_t v = skipBlanks(content, eq + 1);
    if (!a->setProperty(content.substr(kstart, kend - kstart), content.substr(v),
                        request.allowed_properties, request.substitutions,
                        request.suspended_paths)) {
      defer(errors, line, physical);
    }
  }
};

}  // namespace

DeferredLogConfList::~DeferredLogConfList() {
  while (_head != nullptr) {
    DeferredLogConf *next = _head->next;
    delete _head;
    _head = next;
  }
}

void DeferredLogConfList::push(DeferredLogConf *dlc) {
  MV_ASSERT(dlc->next == nullptr);
  *_tail = dlc;
  _tail = &dlc->next;
}

void parse_one_log_cfg_file(ReadableUnicodeStream &file, const char *path,
                            const LogConfigRequest &request, DeferredLogConfList &root,
                            DeferredLogConfList &errors, DeferredLogConfList &categories) {
  Parser p{file, path, request, root, errors, categories};
  p.run();
}

bool apply_log_category_value(LogChannel *channel, StrSegment value) {
  std::vector<StrSegment> items;
  value.splitSkippingEmpty(items, ByteSet(" \t,", true));
  LogMutexScope lock(channel->mutex);
  channel->buffered = false;
  bool ok = true, first_appender = true;
  for (StrSegment item : items) {
    int level;
    if (logLevelFromName(item, level)) {
      channel->level.store(level, std::memory_order_relaxed);
      channel->level_explicit = true;
    } else if (item.size() == 8 && strncasecmp(item.data(), "buffered", 8) == 0) {
      channel->buffered = true;
    } else {
      if (first_appender) channel->appenders.clear();
      first_appender = false;
      LogFileAppender *a = LogFileAppender::find(item, false);
      if (a != nullptr) {
        channel->appenders.push_back(a);
      } else {
        ok = false;
      }
    }
  }
  return ok;
}

bool parse_log_cfg_file(const LogConfigRequest &request) {
  if (Logger::isInitialized()) {
    Logger::resetChannels();
    LogFileAppender::resetAll(true);
  }
  if (!request.allow_stderr) Logger::setQuietStderr(true);

  DeferredLogConfList root, errors, categories;
  ReadableUnicodeFileStar main_file(request.path.c_str());
  if (!main_file.valid()) {
    int e = errno;
    Logger::initialize();
    errno = e;
    Logger::logInternal(nullptr, LOG_ERROR, "Couldn't open log file configuration \"%s\": %m",
                        request.path.c_str());
    return false;
  }
  parse_one_log_cfg_file(main_file, nullptr, request, root, errors, categories);
  Str local = localPath(request.path);
  ReadableUnicodeFileStar local_file(local.c_str());
  if (local_file.valid()) {
    parse_one_log_cfg_file(local_file, local.c_str(), request, root, errors, categories);
  }

  auto fail = [&errors](const DeferredLogConf *d) {
    auto *e = new DeferredLogConf;
    e->file = d->file;
    e->line = d->line;
    e->text = d->text;
    errors.push(e);
  };
  if (const DeferredLogConf *r = root.head()) {
    if (!apply_log_category_value(Logger::rootChannel(), r->text)) fail(r);
  }
  for (const DeferredLogConf *d = categories.head(); d != nullptr; d = d->next) {
    size_t eq = d->text.find('=');
    if (eq == Str::npos) {
      fail(d);
      continue;
    }
    size_t name_end = eq;
    while (name_end > 0 && isBlank(d->text[name_end - 1])) --name_end;
    LogChannel *c = Logger::channelFor(StrSegment(d->text.data(), name_end));
    if (!apply_log_category_value(c, StrSegment(d->text).substr(eq + 1))) fail(d);
  }

  Logger::initialize();
  if (!request.allow_stderr) LogFileAppender::root()->fixUp("rootAppender", false);
  LogFileAppender::fixUpAll(request.allow_stderr);

  for (const DeferredLogConf *d = errors.head(); d != nullptr; d = d->next) {
    const char *file = d->file != nullptr ? d->file : request.path.c_str();
    switch (d->error_type) {
      case DeferredLogConf::LOG_CONF_PARSE_ERROR:
        Logger::logInternal(nullptr, LOG_WARN, "%s:%u: Parse error at \"%s\"", file, d->line,
                            d->text.c_str());
        break;
      case DeferredLogConf::LOG_CONF_UNTERMINATED_COMMENT:
        Logger::logInternal(nullptr, LOG_ERROR, "%s:%u: Unterminated XML comment started", file,
                            d->line);
        break;
      default:
        Logger::logInternal(nullptr, LOG_ERROR,
                            "I know not this DeferredLogConf::error_type=%d you speak of.",
                            d->error_type);
    }
  }
  return errors.head() == nullptr;
}

}  // namespace morvek
