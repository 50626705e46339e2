// Random bytes through FileStar::readline on a seekable file and on a pipe: the pipe gives the
// bytes split at newlines, and the file the same lines. They differ by design only in the last line
// when the input does not end in a newline: the seekable reader keeps a final carriage return and
// drops a final NUL byte.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "basicutil/FileStar.h"

using morvek::FileStar;
using morvek::Str;

namespace {

// The pipe is filled before it is read, so the input must fit in it.
constexpr size_t MAX_INPUT = 65536;

// The lines of an unseekable stream, by splitting the bytes at each newline: a carriage return
// before a newline, or before the end, goes with it.
std::vector<std::string> splitLines(const char *bytes, size_t size) {
  std::vector<std::string> lines;
  for (size_t start = 0; start < size;) {
    size_t end = start;
    while (end < size && bytes[end] != '\n') ++end;
    std::string line(bytes + start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(line);
    start = end + 1;
  }
  return lines;
}

std::vector<std::string> readLines(FILE *fp) {
  FileStar in(fp);
  std::vector<std::string> lines;
  Str line;
  while (in.readline(line)) lines.push_back(line);
  return lines;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  if (size > MAX_INPUT) return 0;
  const char *bytes = reinterpret_cast<const char *>(data);

  FILE *file = tmpfile();
  if (file == nullptr) abort();
  if (size != 0 && fwrite(bytes, 1, size, file) != size) abort();
  rewind(file);
  std::vector<std::string> from_file = readLines(file);

  int p[2];
  if (pipe(p) != 0) abort();
  if (size != 0 && write(p[1], bytes, size) != static_cast<ssize_t>(size)) abort();
  close(p[1]);
  std::vector<std::string> from_pipe = readLines(fdopen(p[0], "r"));

  if (from_pipe != splitLines(bytes, size)) abort();

  std::vector<std::string> expected = from_pipe;
  if (size != 0 && bytes[size - 1] != '\n') {
    std::string &last = expected.back();
    if (bytes[size - 1] == '\r') {
      last.push_back('\r');
    } else if (bytes[size - 1] == '\0') {
      last.pop_back();
      // A final line of one NUL byte is no line at all for the seekable reader.
      if (last.empty()) expected.pop_back();
    }
  }
  if (from_file != expected) abort();
  return 0;
}
