#include "basicutil/PrintfFormat.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <vector>

using morvek::PrintfFormat;
using morvek::PrintfFormatAtom;
using morvek::Str;
using morvek::StrSegment;
using morvek::StrVector;

namespace {

// Unchecked on purpose: several formats here are the engine's own extensions.
Str fmt(const char *format, ...) {
  Str s;
  va_list ap;
  va_start(ap, format);
  morvek::vappendPrintf(s, format, ap);
  va_end(ap);
  return s;
}

// A crash writer that records what it is given, and the largest single write.
struct RecordingWriter {
  crash_log_writer handle{&RecordingWriter::write};
  std::string text;
  size_t writes = 0, largest = 0;
  static void write(crash_log_writer *h, const char *bytes, size_t len) {
    auto *self = reinterpret_cast<RecordingWriter *>(h);
    self->text.append(bytes, len);
    ++self->writes;
    self->largest = std::max(self->largest, len);
  }
};

// Hands the arguments after f to f as a va_list, for the entry points that take one.
template <class F>
void withArgs(F f, ...) {
  va_list ap;
  va_start(ap, f);
  f(ap);
  va_end(ap);
}

// Each atom printed back as format text, joined by "|".
std::string atomsOf(const char *format, unsigned options = morvek::PRINTF_OPT_DEFAULT,
                    unsigned *args = nullptr) {
  StrSegment view(format);
  PrintfFormatAtom atom;
  Str out;
  unsigned n = 0;
  while (atom.getNext(view, options)) {
    if (!out.empty()) out += '|';
    morvek::append_stringified(out, atom);
    n += atom.argumentCount();
  }
  if (args) *args = n;
  return out;
}

TEST(PrintfParse, AtomsPrintBackAsTheirCanonicalForm) {
  struct Case {
    const char *format, *atoms;
    unsigned args;
  } cases[] = {
      // clang-format off
      {"100%", "100|%%", 0}, {"abc%-5", "abc|%%", 0}, {"%5.", "%%", 0}, {"%-5y", "%%-5y", 0},
      {"%*y", "%%*y", 0}, {"%Lf", "%%L|f", 0}, {"%I32u", "%u", 1}, {"%Ia", "%la", 1},
      {"%I", "%%", 0}, {"%wsXd", "%ld", 1}, {"%wc", "%%", 0}, {"%w5d", "%%w|5d", 0},
      {"%hhd%hd%qd%jd%td%zd", "%hhd|%hd|%ld|%ld|%ld|%ld", 6}, {"% +d|%+ d", "%+d|\\||%+d", 2},
      {"%0-5d", "%-5d", 1}, {"%05.2d%05.*x%05.2f", "%5.2d|%5.*x|%05.2lf", 4},
      {"%+u% x%+o%+i", "%u|%x|%o|%+d", 4}, {"%*.*d", "%*.*d", 3}, {"%.d%.s", "%.0d|%.0s", 2},
      {"%#p%#o", "%p|%#o", 2}, {"%'u%'x%'g%'e", "%'u|%x|%'lg|%le", 4},
      // %m counts as an argument although it reads none.
      {"%E%A%m", "%lE|%lA|%m", 3}, {"%05s%-3c", "%05s|%-3c", 2},
      // clang-format on
  };
  for (const Case &c : cases) {
    unsigned args = 0;
    // "|" inside a constant is doubled by nothing, so one test case spells it out.
    std::string want = c.atoms;
    for (size_t at; (at = want.find("\\|")) != std::string::npos;) want.replace(at, 2, "|");
    EXPECT_EQ(atomsOf(c.format, morvek::PRINTF_OPT_DEFAULT, &args), want) << c.format;
    EXPECT_EQ(args, c.args) << c.format;
  }
}

TEST(PrintfParse, OptionsConstantsAndCompiledCopies) {
  EXPECT_EQ(atomsOf("%m", morvek::PRINTF_OPT_POINTER), "%%m");
  EXPECT_EQ(atomsOf("%p", morvek::PRINTF_OPT_ERRNO), "%X");
  EXPECT_EQ(atomsOf("%zd", morvek::PRINTF_OPT_DEFAULT | morvek::PRINTF_OPT_Z_STRING), "%s|d");
  EXPECT_EQ(atomsOf("%z", morvek::PRINTF_OPT_DEFAULT), "%%");

  // Constants point into the format, and compiled copies own their text.
  const char *format = "ab%%cd";
  StrSegment view(format);
  PrintfFormatAtom atom;
  ASSERT_TRUE(atom.getNext(view));
  ASSERT_TRUE(atom.getNext(view));
  EXPECT_TRUE(atom.text == format + 2 && atom.text_len == 1u);
  EXPECT_EQ(view.data(), format + 4);

  PrintfFormat copy;
  {
    std::string temporary = "[%5s|%*d]";
    PrintfFormat compiled{StrSegment(temporary)};
    temporary.assign(temporary.size(), 'x');
    copy = compiled;
  }
  EXPECT_EQ(copy.argumentCount(), 3u);
  Str out;
  copy.render(out, "ab", -4, 7);
  EXPECT_EQ(out, "[   ab|7   ]");
}

TEST(PrintfParse, VariableWidthIsSetOnce) {
  PrintfFormatAtom atom;
  StrSegment view("%*.*d");
  ASSERT_TRUE(atom.getNext(view));
  atom.setVariableWidth(INT_MIN);
  EXPECT_EQ(atom.width, 2147483648u);
  EXPECT_DEATH(atom.setVariableWidth(1), "width == \\(size_t\\)-1");
  PrintfFormatAtom bad;
  bad.conversion = PrintfFormatAtom::CONV_SIGNED_DECIMAL;
  bad.padding = static_cast<PrintfFormatAtom::Padding>(7);
  Str out;
  EXPECT_DEATH(morvek::append_stringified(out, bad), "PAD_LEFT_ZEROS");
}

// Where the engine's output differs from the C library's and the differential test's random
// formats don't reach; the rest is checked there.
TEST(PrintfRender, WhereTheEngineDiffersFromC) {
  EXPECT_EQ(fmt("%I64d|%I32d|%wsXd", 1LL << 40, -2, 5LL), "1099511627776|-2|5");
  // Grouping: precision counts the commas, zeros go unseparated after the sign, " " stays first,
  // and hex is never grouped.
  EXPECT_EQ(fmt("%'lld|%'llu", LLONG_MIN, ULLONG_MAX),
            "-9,223,372,036,854,775,808|18,446,744,073,709,551,615");
  EXPECT_EQ(fmt("%'.9d|%'012u|% '-9d|% '08d|%'.0d|%'d|%'+d|%'x", 123456, 1234567u, 1234, 1234, 0,
                999, 1000, 0x12345),
            "00123,456|0001,234,567| 1,234   | 001,234||999|+1,000|12345");
  Str direct;
  morvek::append_stringified(direct,
                             morvek::printfPointerValue(morvek::printfDefaultPointerAtom(), 0x1f));
  EXPECT_EQ(direct, "0x1f");
  // Pointers take no sign, keep zero padding with a precision, and null is text.
  EXPECT_EQ(fmt("%+p|% 8p|%08.3p|%-6p|%#5p|%08p|%.8p|%p", (void *)0x10, (void *)0x10, (void *)0x10,
                nullptr, nullptr, nullptr, nullptr, (void *)UINTPTR_MAX),
            "0x10|    0x10|0x000010|(nil) |(nil)|   (nil)|(nil)|0xffffffffffffffff");
  EXPECT_EQ(fmt("%'.0f|%'.1f", 1e22, -999.95), "10,000,000,000,000,000,000,000|-1,000.0");
  EXPECT_EQ(fmt("%'012.1f|%'g", 1234.5, 1234567.0), "000001,234.5|1.23457e+06");
  EXPECT_EQ(fmt("%.1200f", 1.0).size(), 1202u);
}

TEST(PrintfRender, ErrnoTextUsesTheSavedNumber) {
  errno = ENOENT;
  Str s;
  s.appendf("%m|%.4m|%-28m|");
  EXPECT_EQ(s, "No such file or directory|No s|No such file or directory   |");
  EXPECT_EQ(errno, ENOENT);
  errno = EINVAL;
  Str saved;
  withArgs([&](va_list ap) { morvek::vappendPrintf(saved, "%m", ap, EACCES); });
  EXPECT_EQ(saved, "Permission denied");
  errno = 123456;
  EXPECT_EQ(fmt("%m"), "UNKNOWN ERROR");
}

TEST(PrintfSinks, StrMembersVectorAndCrashLog) {
  // Long outputs leave the short-string form.
  Str big(Str::FORMAT, "%300d|%s", 1, "end");
  EXPECT_EQ(big.size(), 304u);
  EXPECT_EQ(big.substr(299), "1|end");

  // A vector gets one element per conversion.
  StrVector v{"kept"};
  morvek::appendPrintfToVector(v, "a%db%5sc%%d%c", 12, "xy", 'z');
  EXPECT_EQ(v, (StrVector{"kept", "12", "   xy", "z"}));
  PrintfFormat compiled("[%x][%m]");
  v.clear();
  withArgs([&](va_list ap) { compiled.vrenderToVector(v, ap, ENOENT); }, 255);
  EXPECT_EQ(v, (StrVector{"ff", "No such file or directory"}));

  // The crash sink matches the Str sink, and fills in chunks.
  RecordingWriter w;
  morvek::printfToCrashLog(&w.handle, "[%d|%-6s|%#x|%p|%.3e|%'g|%%|%c|%a|%5p]", -7, "text", 255u,
                           (void *)0x10, 1.5, 1e6, 'q', 0.75, (void *)nullptr);
  EXPECT_EQ(w.text, fmt("[%d|%-6s|%#x|%p|%.3e|%'g|%%|%c|%a|%5p]", -7, "text", 255u, (void *)0x10,
                        1.5, 1e6, 'q', 0.75, nullptr));
  w.text.clear();
  morvek::printfToCrashLog(&w.handle, "%100d|%-70s|%080d", 1, "x", 2);
  EXPECT_EQ(w.text, fmt("%100d|%-70s|%080d", 1, "x", 2));
  EXPECT_LE(w.largest, 32u);
  PrintfFormat padded("<%*s>");
  w.text.clear();
  withArgs([&](va_list ap) { padded.vrenderToCrashLog(&w.handle, ap); }, -4, "ab");
  EXPECT_EQ(w.text, "<ab  >");
}

// Conversions with no flags take a shorter road; the crash and vector sinks must still agree with
// the C library at the extremes of each argument size, and a format may end in a length modifier.
TEST(PrintfSinks, BareConversionsAtTheExtremes) {
  auto check = [](const char *format, auto value) {
    char want[64];
    snprintf(want, sizeof want, format, value);
    RecordingWriter w;
    morvek::printfToCrashLog(&w.handle, format, value);
    EXPECT_EQ(w.text, want) << format;
    StrVector v;
    morvek::appendPrintfToVector(v, format, value);
    EXPECT_EQ(v, StrVector{want}) << format;
  };
  for (int v : {0, 9, 10, -1, INT_MIN, INT_MAX}) check("%i", v);
  check("%u", 4294967295u);
  for (long long v : {LLONG_MIN, LLONG_MAX}) check("%lli", v);
  check("%ld", -10000000000l);
  check("%llu", ULLONG_MAX);
  check("%s", "");
  EXPECT_EQ(fmt("a%ll"), "a%");
  EXPECT_EQ(fmt("%lx|%ls", 255ul, "w"), "ff|w");
}

}  // namespace
