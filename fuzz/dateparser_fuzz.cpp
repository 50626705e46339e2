// Event lines through one long-lived DateParser with the shipped patterns, so the pattern memory,
// date reuse and previous-time paths run across inputs as they do on a real stream. The first
// byte picks settings; with an alias setting a fresh parser takes this one input.
// Layout: flags byte, [alias text up to '\n' when flag 0x04], then lines separated by '\n'.
#include <cstddef>
#include <cstdint>
#include <memory>

#include "basicutil/DateParser.h"
#include "basicutil/Logger.h"
#include "tools/ts/TsCore.h"

using namespace morvek;

namespace {

constexpr int64_t NOW = 1749988800;  // 2025-06-15T12:00:00Z

DateParser &longLived() {
  static DateParser *parser = [] {
    Str error;
    const Str path = ts::shippedPatternsPath();
    if (path.empty() || !DateTimeRegexes::shared().loadFile(path.c_str(), error)) {
      fprintf(stderr, "dateparser_fuzz: no pattern set: %s\n", error.c_str());
      abort();
    }
    ts::quietParserLogs();
    auto *p = new DateParser();
    p->setMode(1);
    p->setDefaultZoneText("America/New_York");
    return p;
  }();
  return *parser;
}

const int32_t LOOKAHEADS[4] = {128, -1, 16, 300};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  DateParser &shared = longLived();
  if (size < 1) return 0;
  const uint8_t flags = data[0];
  StrSegment rest(reinterpret_cast<const char *>(data) + 1, size - 1);
  // Warnings format times and event text: render them now and then, quietly otherwise.
  Logger::setLevel("DateParserVerbose", (flags & 0x08) ? "DEBUG" : "FATAL");

  std::unique_ptr<DateParser> fresh;
  DateParser *parser = &shared;
  if (flags & 0x04) {
    const size_t nl = rest.find('\n');
    const StrSegment alias = rest.substr(0, nl);
    rest = nl == StrSegment::npos ? StrSegment() : rest.substr(nl + 1);
    fresh = std::make_unique<DateParser>((flags & 0x40) == 0);
    fresh->setMode(1);
    fresh->setTzAlias(alias);
    parser = fresh.get();
  }
  parser->setLookahead(LOOKAHEADS[flags & 3]);

  int64_t t = NOW;
  while (true) {
    const size_t nl = rest.find('\n');
    // Regexes are only run on valid UTF-8: the caller's duty, done here as morvek-ts does it.
    Str valid;
    const StrSegment line =
        ts::replaceInvalidUtf8(rest.substr(0, nl), valid) ? StrSegment(valid) : rest.substr(0, nl);
    Timeval out;
    ParseDetails details;
    int32_t offsets[4];
    if (flags & 0x10) parser->isTimestampLine(line);
    if (parser->parse(out, line, Timeval(t, 0), &offsets[0], &offsets[1], &offsets[2], &offsets[3],
                      &details)) {
      // Offsets point into the text the parser saw.
      for (int32_t o : offsets) {
        if (o < -1 || o > static_cast<int32_t>(line.size())) abort();
      }
    }
    if (flags & 0x20) parser->dateTimeFromString(out, line);
    t += 7;
    if (nl == StrSegment::npos) break;
    rest = rest.substr(nl + 1);
  }
  return 0;
}
