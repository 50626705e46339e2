#include "basicutil/FileOperations.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <sys/statvfs.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>

#include "basicutil/BasicConversions.h"
#include "basicutil/DirectoryDescriptor.h"
#include "basicutil/FileDescriptor.h"
#include "basicutil/FilePermissions.h"
#include "basicutil/SimpleRandomNumber.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

constexpr const char *OP_COPY = "copying source to destination";
constexpr const char *OP_HARD_LINK = "hard linking source to destination";
constexpr const char *OP_MOVE = "moving source to destination";
constexpr const char *STEP_STAT_SOURCE = "stat'ing source directory";
constexpr const char *STEP_CREATE_DEST = "creating destination directory";
constexpr const char *STEP_TRANSFER = "transfering contents from source to destination";
constexpr const char *STEP_CHMOD_DEST = "modifying destination permissions";
constexpr const char *STEP_GET_MODTIME = "getting modtime on source";
constexpr const char *STEP_SET_MODTIME = "setting modtime on destination";
constexpr const char *FAIL_REMOVE_FILE = "failed to remove file";
constexpr const char *FAIL_REMOVE_DIR = "failed to remove directory";
constexpr const char *FAIL_REMOVE_BY_SUFFIX = "failed to remove file ";

constexpr size_t READ_CHUNK = 4096;
constexpr int CROSS_DEVICE_NAME_TRIES = 5;

void appendErrnoText(Str &out, int errnum) {
  char buf[128];
  out.append(strerror_r(errnum, buf, sizeof buf));
}

void appendQuoted(Str &out, StrSegment value) {
  out.push_back('"');
  for (char c : value) {
    if (c == '"' || c == '\\') out.push_back('\\');
    out.push_back(c);
  }
  out.push_back('"');
}

void appendPair(Str &out, const char *key, char sep, StrSegment value) {
  out.append(key);
  out.push_back(sep);
  appendQuoted(out, value);
}

// Seconds, with the nanoseconds rounded to the nearest microsecond.
struct timeval toTimeval(const struct timespec &ts) {
  struct timeval tv;
  tv.tv_sec = ts.tv_sec;
  tv.tv_usec = static_cast<suseconds_t>((ts.tv_nsec + 500) / 1000);
  if (tv.tv_usec >= 1000000) {
    ++tv.tv_sec;
    tv.tv_usec -= 1000000;
  }
  return tv;
}

// The same in a timespec, for utimensat.
struct timespec toMicroseconds(const struct timespec &ts) {
  struct timeval tv = toTimeval(ts);
  return {tv.tv_sec, static_cast<long>(tv.tv_usec) * 1000};
}

bool statOk(const Pathname &path, struct stat &st) { return ::stat(path.c_str(), &st) == 0; }

// Unlinks the held name when it goes out of scope, keeping errno.
struct UnlinkGuard {
  Pathname path;
  ~UnlinkGuard() {
    if (path.empty()) return;
    int saved = errno;
    ::unlink(path.c_str());
    errno = saved;
  }
};

// The destination is never seen half written: the copy goes to a fresh hidden name beside it
// and is renamed into place. The source stays.
bool crossDeviceMove(const Pathname &src, const Pathname &dest) {
  Pathname dir = dest.parent();
  if (dir.empty()) dir.push_back('.');
  UnlinkGuard guard;
  for (int i = 0; i < CROSS_DEVICE_NAME_TRIES && guard.path.empty(); ++i) {
    Str name;
    appendRandomHex(name, 8);
    name.append(".rename_tmp");
    Pathname tmp(dir, name);
    if (FilePermissions::createExclusive(tmp.c_str(), Pathname::CREATE_PRIVATE).valid()) {
      guard.path = std::move(tmp);
    }
  }
  if (guard.path.empty()) return false;
  if (!src.copyFile(guard.path, false)) return false;
  FileDescriptor in(src.c_str());
  struct stat st;
  if (!in.valid() || fstat(in.fd(), &st) != 0) return false;
  if (!guard.path.chmod(st.st_mode & 0777)) return false;
  if (!guard.path.renameTo(dest.c_str())) return false;
  guard.path.clear();
  return true;
}

// ---- The tree engine ------------------------------------------------------------------------
// A walk names each file twice: by its full path, for filters and reports, and by a directory
// descriptor and a name, for the system calls, so that a tree deeper than PATH_MAX is handled.

struct At {
  const Pathname &path;
  int dirFd;                        // AT_FDCWD at the top of a walk
  const char *name;                 // the path itself at the top
  unsigned char type = DT_UNKNOWN;  // what the directory entry said, saving an lstat

  static At top(const Pathname &p) { return {p, AT_FDCWD, p.c_str()}; }
};

// The file type bits, links not followed.
bool entryFormat(At a, mode_t &format) {
  if (a.type != DT_UNKNOWN) {
    format = DTTOIF(a.type);
    return true;
  }
  struct stat st;
  if (fstatat(a.dirFd, a.name, &st, AT_SYMLINK_NOFOLLOW) != 0) return false;
  format = st.st_mode & S_IFMT;
  return true;
}

// In-kernel copy of a regular file from the start; false with nothing written when the file
// systems can't do it, so that the caller falls back to reading and writing.
enum class RangeCopy { DONE, FAILED, UNSUPPORTED };
RangeCopy copyRange(int in, int out, off_t size) {
  off_t done = 0;
  for (;;) {
    ssize_t n = copy_file_range(in, nullptr, out, nullptr, size_t(1) << 30, 0);
    if (n < 0) {
      if (done == 0 && (errno == EXDEV || errno == EINVAL || errno == ENOSYS ||
                        errno == EOPNOTSUPP || errno == EBADF)) {
        return RangeCopy::UNSUPPORTED;
      }
      return RangeCopy::FAILED;
    }
    done += n;
    if (n == 0 || (size > 0 && done >= size)) return RangeCopy::DONE;
  }
}

bool makeWritableAt(At a) {
  if (faccessat(a.dirFd, a.name, W_OK, 0) == 0) return true;
  struct stat st;
  if (fstatat(a.dirFd, a.name, &st, 0) == 0) {
    fchmodat(a.dirFd, a.name, (st.st_mode & 07777) | 0200, 0);
  }
  return faccessat(a.dirFd, a.name, W_OK, 0) == 0;
}

bool copyFileAt(At src, At dest, bool fixAttributes) {
  FileDescriptor in(openat(src.dirFd, src.name, O_RDONLY | O_CLOEXEC));
  struct stat srcSt, destSt;
  if (!in.valid() || fstat(in.fd(), &srcSt) != 0) return false;
  if (fstatat(dest.dirFd, dest.name, &destSt, 0) == 0) {
    if (srcSt.st_dev == destSt.st_dev && srcSt.st_ino == destSt.st_ino) return true;
    if (fixAttributes && !makeWritableAt(dest)) return false;
  }
  // Created with the source's permission bits, as FileDescriptor::copyToPath does.
  FileDescriptor out(openat(dest.dirFd, dest.name, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC,
                            srcSt.st_mode & 0777));
  if (!out.valid()) return false;
  RangeCopy range =
      S_ISREG(srcSt.st_mode) ? copyRange(in.fd(), out.fd(), srcSt.st_size) : RangeCopy::UNSUPPORTED;
  if (range == RangeCopy::FAILED) return false;
  if (range == RangeCopy::UNSUPPORTED && !in.copyTo(out.fd())) return false;
  if (!out.close()) return false;
  return !fixAttributes || fchmodat(dest.dirFd, dest.name, srcSt.st_mode & 0777, 0) == 0;
}

// A symbolic link met inside a copied tree is made again as a link, not followed: a copy must
// not grow through a link that loops back into the tree.
bool copySymlinkAt(At src, At dest) {
  Str target;
  target.resize(128);
  for (;;) {
    ssize_t n = readlinkat(src.dirFd, src.name, target.data(), target.size());
    if (n < 0) return false;
    if (static_cast<size_t>(n) < target.size()) {
      target.resize(static_cast<size_t>(n));
      break;
    }
    target.resize(target.size() * 2);
  }
  if (symlinkat(target.c_str(), dest.dirFd, dest.name) == 0) return true;
  if (errno != EEXIST || unlinkat(dest.dirFd, dest.name, 0) != 0) return false;
  return symlinkat(target.c_str(), dest.dirFd, dest.name) == 0;
}

enum class Action { COPY, HARD_LINK, MOVE };

const char *actionName(Action a) {
  return a == Action::COPY ? OP_COPY : a == Action::HARD_LINK ? OP_HARD_LINK : OP_MOVE;
}

struct TreeOptions {
  Action action;
  bool keepTimes;
  bool fixAttributes;
};

bool applyAction(At src, At dest, const TreeOptions &o) {
  switch (o.action) {
    case Action::COPY:
      return copyFileAt(src, dest, o.fixAttributes);
    case Action::HARD_LINK:
      return linkat(src.dirFd, src.name, dest.dirFd, dest.name, 0) == 0 ||
             copyFileAt(src, dest, false);
    case Action::MOVE:
      return renameat(src.dirFd, src.name, dest.dirFd, dest.name) == 0 ||
             copyFileAt(src, dest, false);
  }
  return false;
}

bool transferContents(At src, At dest, const TreeOptions &o, FileOperationScope &scope);

bool transferTree(At src, At dest, const TreeOptions &o, FileOperationScope &scope) {
  struct stat st;
  if (fstatat(src.dirFd, src.name, &st, 0) != 0) {
    scope.fail(STEP_STAT_SOURCE, src.path, &dest.path);
    return false;
  }
  if (!S_ISDIR(st.st_mode)) {
    if (applyAction(src, dest, o)) return true;
    scope.fail(actionName(o.action), src.path, &dest.path);
    return false;
  }
  struct stat dst;
  if (fstatat(dest.dirFd, dest.name, &dst, 0) == 0) {
    if (!S_ISDIR(dst.st_mode)) {
      errno = ENOTDIR;
      scope.fail(actionName(o.action), src.path, &dest.path);
      return false;
    }
  } else if (!FilePermissions::mkdirAt(dest.dirFd, dest.name, FilePermissions::MKDIR_NORMAL)) {
    scope.fail(STEP_CREATE_DEST, src.path, &dest.path);
    return false;
  }
  bool ok = transferContents(src, dest, o, scope);
  if (fchmodat(dest.dirFd, dest.name, st.st_mode & 07777, 0) != 0) {
    scope.fail(STEP_CHMOD_DEST, src.path, &dest.path);
    ok = false;
  }
  if (o.keepTimes) {
    if (fstatat(src.dirFd, src.name, &st, 0) != 0) {
      scope.fail(STEP_GET_MODTIME, src.path, &dest.path);
      return false;
    }
    struct timespec times[2] = {toMicroseconds(st.st_atim), toMicroseconds(st.st_mtim)};
    if (utimensat(dest.dirFd, dest.name, times, 0) != 0) {
      scope.fail(STEP_SET_MODTIME, src.path, &dest.path);
      return false;
    }
  }
  return ok;
}

bool transferContents(At src, At dest, const TreeOptions &o, FileOperationScope &scope) {
  DirectoryReader reader(src.path);
  reader.keepStoredNames();
  FileDescriptor destDir(openat(dest.dirFd, dest.name, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!destDir.valid() || !reader.openAt(src.dirFd, src.name)) {
    scope.fail(STEP_TRANSFER, src.path, &dest.path);
    return false;
  }
  const int srcFd = reader._dd.fd();
  Str name;
  bool ok = true;
  while (reader.next(name)) {
    Pathname childSrcPath(src.path, name), childDestPath(dest.path, name);
    At childSrc{childSrcPath, srcFd, name.c_str(), reader.lastType()};
    At childDest{childDestPath, destDir.fd(), name.c_str()};
    mode_t format;
    bool done;
    if (!entryFormat(childSrc, format)) {
      done = false;
    } else if (S_ISDIR(format)) {
      ok = transferTree(childSrc, childDest, o, scope) && ok;  // reports its own steps
      continue;
    } else if (S_ISLNK(format) && o.action == Action::COPY) {
      done = copySymlinkAt(childSrc, childDest);
    } else {
      done = applyAction(childSrc, childDest, o);
    }
    if (!done) {
      scope.fail(STEP_TRANSFER, childSrcPath, &childDestPath);
      ok = false;
    }
  }
  if (errno != 0) {  // reading the directory failed part way
    scope.fail(STEP_TRANSFER, src.path, &dest.path);
    ok = false;
  }
  return ok;
}

bool removeContentsIn(At dir, const Pathname::predicate &pred, FileOperationScope &scope);

bool removeTreeIn(At a, const Pathname::predicate &pred, FileOperationScope &scope) {
  Pathname::Decision d = pred(a.path);
  mode_t format;
  if (!entryFormat(a, format)) {
    scope.fail(FAIL_REMOVE_FILE, a.path);
    return false;
  }
  if (!S_ISDIR(format)) {
    if (!d.take || unlinkat(a.dirFd, a.name, 0) == 0) return true;
    scope.fail(FAIL_REMOVE_FILE, a.path);
    return false;
  }
  if (d.take || d.descend) {
    makeWritableAt(a);
    if (!removeContentsIn(a, pred, scope)) return false;
  }
  if (!d.take || unlinkat(a.dirFd, a.name, AT_REMOVEDIR) == 0) return true;
  if (errno == ENOTEMPTY || errno == EEXIST) return true;  // the filter spared something inside
  scope.fail(FAIL_REMOVE_DIR, a.path);
  return false;
}

bool removeContentsIn(At dir, const Pathname::predicate &pred, FileOperationScope &scope) {
  DirectoryReader reader(dir.path);
  reader.keepStoredNames();
  if (!reader.openAt(dir.dirFd, dir.name)) {
    scope.fail(FAIL_REMOVE_DIR, dir.path);
    return false;
  }
  const int fd = reader._dd.fd();
  Str name;
  bool ok = true;
  while (reader.next(name)) {
    Pathname child(dir.path, name);
    ok = removeTreeIn({child, fd, name.c_str(), reader.lastType()}, pred, scope) && ok;
  }
  if (errno != 0) {
    scope.fail(FAIL_REMOVE_DIR, dir.path);
    ok = false;
  }
  return ok;
}

bool removeBySuffixIn(At dir, StrSegment suffix, FileOperationScope &scope) {
  DirectoryReader reader(dir.path);
  reader.keepStoredNames();
  if (!reader.openAt(dir.dirFd, dir.name)) return false;
  const int fd = reader._dd.fd();
  Str name;
  bool ok = true;
  while (reader.next(name)) {
    Pathname child(dir.path, name);
    At entry{child, fd, name.c_str(), reader.lastType()};
    mode_t format;
    if (!entryFormat(entry, format)) continue;  // gone meanwhile
    if (S_ISDIR(format)) {
      ok = removeBySuffixIn(entry, suffix, scope) && ok;
    } else if (name.endsWith(suffix) && unlinkat(fd, name.c_str(), 0) != 0) {
      scope.fail(FAIL_REMOVE_BY_SUFFIX, child);
      ok = false;
    }
  }
  return ok;
}

// Takes everything but one path.
class AllBut : public Pathname::predicate {
 public:
  explicit AllBut(Pathname spared) : _spared(std::move(spared)) {}
  Pathname::Decision operator()(const Pathname &path) const override {
    bool spare = path == _spared;
    return {!spare, !spare};
  }

 private:
  Pathname _spared;
};

}  // namespace

// ---- Errors -----------------------------------------------------------------------------------

void FileOperationError::appendErrorText(Str &out) const {
  if (error.index() == 0) {
    appendErrnoText(out, std::get<0>(error));
  } else {
    out.append(std::get<1>(error));
  }
}

void FileOperationError::appendTo(Str &out, char sep) const {
  if (!operation.empty()) {
    appendPair(out, "operation", sep, operation);
    out.append(", ");
  }
  Str text;
  appendErrorText(text);
  appendPair(out, "error", sep, text);
  out.append(", ");
  if (!dest.empty()) {
    appendPair(out, "src", sep, src);
    appendPair(out, " dest", sep, dest);
  } else {
    appendPair(out, "file", sep, src);
  }
}

void FileOperationErrors::report(FileOperationError &&error) {
  if (error.error.index() == 0 &&
      std::find(ignored.begin(), ignored.end(), std::get<0>(error.error)) != ignored.end()) {
    return;
  }
  if (++count <= maxErrors) errors.push_back(std::move(error));
}

void FileOperationErrors::appendTo(Str &out) const {
  if (count == 0) return;
  uint64_t described = std::min<uint64_t>(maxErrors, count);
  appendNumber(out, count);
  out.append(" errors occurred, description of first ");
  if (described == 1) {
    out.append("error: ");
  } else {
    appendNumber(out, described);
    out.append(" errors: ");
  }
  out.push_back('[');
  for (size_t i = 0; i < errors.size(); ++i) {
    if (i != 0) out.append(", ");
    out.push_back('{');
    errors[i].appendTo(out, ':');
    out.push_back('}');
  }
  out.push_back(']');
}

void FileOperationScope::fail(const char *operation, const Pathname &path, const Pathname *dest) {
  int err = errno;
  if (!_seen) {
    _seen = true;
    _first_errno = err;
  }
  if (_errors == nullptr) return;
  FileOperationError e;
  e.src = path;
  if (dest != nullptr) e.dest = *dest;
  e.error = err;
  e.operation = StrSegment(operation);
  _errors->report(std::move(e));
  errno = err;
}

void RenameReport::appendTo(Str &out) const {
  out.append(operation);
  out.append(succeeded ? " succeeded in " : " failed in ");
  appendNumber(out, attempts);
  out.appendf(" attempt(s) made between %lld.%06d and %lld.%06d",
              static_cast<long long>(started.seconds()), started.microseconds(),
              static_cast<long long>(finished.seconds()), finished.microseconds());
  if (succeeded) return;
  out.append(" [status code: ");
  appendNumber(out, errorCode);
  out.append(" description: \"");
  appendErrnoText(out, errorCode);
  out.append("\"]");
}

FileReadResult readWholeFile(const Pathname &path, uint64_t maximum_size) {
  auto failure = [&](const char *operation) {
    FileOperationError e;
    e.src = path;
    e.error = errno;
    e.operation = StrSegment(operation);
    return FileReadResult{std::move(e)};
  };
  FileDescriptor fd(path.c_str());
  if (!fd.valid()) return failure("opening file");
  Str contents;
  uint64_t size = 0;
  if (fd.size(size)) contents.reserve(static_cast<size_t>(std::min(size, maximum_size)));
  char chunk[READ_CHUNK];
  for (;;) {
    ssize_t n = fd.read(chunk, sizeof chunk);
    if (n == 0) return FileReadResult{std::move(contents)};
    if (n < 0) return failure("reading file");
    if (contents.size() + static_cast<uint64_t>(n) > maximum_size) {
      FileOperationError e;
      e.src = path;
      Str message("file size exceeds maximum_size=");
      appendByteSize(message, ByteSize{maximum_size, ByteSize::BINARY});
      e.error = std::move(message);
      return FileReadResult{std::move(e)};
    }
    contents.append(chunk, static_cast<size_t>(n));
  }
}

// ---- Pathname: tests and attributes ------------------------------------------------------------

bool Pathname::getSize(uint64_t &size) const {
  struct stat st;
  if (!statOk(*this, st)) return false;
  const off_t *sizep = &st.st_size;
  MV_ASSERT(*sizep >= 0);
  size = static_cast<uint64_t>(*sizep);
  return true;
}

bool Pathname::isEmptyFile() const {
  uint64_t size;
  return getSize(size) && size == 0;
}

bool Pathname::getDiskUsage(uint64_t &bytes) const {
  struct stat st;
  if (!statOk(*this, st)) return false;
  bytes = static_cast<uint64_t>(st.st_blocks) * 512;
  return true;
}

bool Pathname::getModificationTime(Timeval &time) const {
  struct stat st;
  if (!statOk(*this, st)) return false;
  struct timeval tv = toTimeval(st.st_mtim);
  time = Timeval(tv.tv_sec, static_cast<int32_t>(tv.tv_usec));
  return true;
}

bool Pathname::touch() const { return utimes(c_str(), nullptr) == 0; }

bool Pathname::setModificationTime(const Timeval &time) const {
  struct timeval times[2];
  gettimeofday(&times[0], nullptr);
  times[1].tv_sec = time.seconds();
  times[1].tv_usec = time.microseconds();
  return utimes(c_str(), times) == 0;
}

bool Pathname::sameFileInfo(const struct stat &a, const struct stat &b) {
  if (a.st_size != b.st_size || a.st_mtim.tv_sec != b.st_mtim.tv_sec ||
      a.st_mtim.tv_nsec != b.st_mtim.tv_nsec || a.st_mode != b.st_mode || a.st_uid != b.st_uid ||
      a.st_gid != b.st_gid || a.st_nlink != b.st_nlink || a.st_dev != b.st_dev ||
      a.st_ino != b.st_ino) {
    return false;
  }
  bool device = S_ISBLK(a.st_mode) || S_ISCHR(a.st_mode);
  return !device || a.st_rdev == b.st_rdev;
}

void Pathname::appendStatInfo(Str &out, const struct stat &st) {
  out.appendf("[dev=%llu, ino=%llu, mode=%o, size=%lld, mtime=%lld, owner=%u, group=%u]",
              static_cast<unsigned long long>(st.st_dev),
              static_cast<unsigned long long>(st.st_ino), static_cast<unsigned>(st.st_mode),
              static_cast<long long>(st.st_size), static_cast<long long>(st.st_mtim.tv_sec),
              static_cast<unsigned>(st.st_uid), static_cast<unsigned>(st.st_gid));
}

Pathname::Kind Pathname::kind() const {
  struct stat st;
  if (!statOk(*this, st)) return KIND_ABSENT;
  if (S_ISREG(st.st_mode)) return KIND_FILE;
  if (S_ISDIR(st.st_mode)) return KIND_DIRECTORY;
  return KIND_OTHER;
}

bool Pathname::exists() const { return !empty() && access(c_str(), F_OK) == 0; }

bool Pathname::isReadOnly() const {
  struct stat st;
  return statOk(*this, st) && (st.st_mode & 0222) == 0;
}

bool Pathname::makeWritable() const { return makeWritableAt(At::top(*this)); }

bool Pathname::makeReadOnly() const {
  if (access(c_str(), W_OK) == 0) {
    struct stat st;
    if (statOk(*this, st)) ::chmod(c_str(), st.st_mode & 07777 & ~mode_t(0222));
  }
  return access(c_str(), W_OK) != 0;
}

bool Pathname::chmod(mode_t mode) const { return ::chmod(c_str(), mode) == 0; }
bool Pathname::truncate(uint64_t size) const {
  return ::truncate(c_str(), static_cast<off_t>(size)) == 0;
}
bool Pathname::rmdir() const { return ::rmdir(c_str()) == 0; }
bool Pathname::unlink() const { return ::unlink(c_str()) == 0; }
bool Pathname::remove() const { return ::remove(c_str()) == 0; }
bool Pathname::symlinkTo(const char *target) const { return symlink(c_str(), target) == 0; }
bool Pathname::linkTo(const char *target) const { return link(c_str(), target) == 0; }
bool Pathname::renameTo(const char *target) const { return rename(c_str(), target) == 0; }
DIR *Pathname::openDirectory() const { return opendir(c_str()); }

bool Pathname::makeDirectories(mode_t mode) const {
  if (empty()) return true;
  struct stat st;
  if (statOk(*this, st) && S_ISDIR(st.st_mode)) return true;
  Pathname up = parent();
  if (!up.empty() && !up.makeDirectories(mode)) return false;
  if (::mkdir(c_str(), mode) == 0) return true;
  if (errno != EEXIST) return false;
  if (statOk(*this, st) && S_ISDIR(st.st_mode)) return true;
  errno = EEXIST;
  return false;
}

// ---- Pathname: removal, copying, moving --------------------------------------------------------

bool Pathname::removeTree(const predicate &pred, FileOperationErrors *errors) const {
  FileOperationScope scope(errors);
  return removeTreeIn(At::top(*this), pred, scope);
}

bool Pathname::removeContents(const predicate &pred, FileOperationErrors *errors) const {
  FileOperationScope scope(errors);
  return removeContentsIn(At::top(*this), pred, scope);
}

bool Pathname::removeTreeIgnoringMissing(const predicate &pred) const {
  FileOperationErrors errors;
  errors.maxErrors = FileOperationErrors::DEFAULT_MAX_ERRORS;
  errors.ignored.push_back(ENOENT);
  return removeTree(pred, &errors);
}

bool Pathname::removeContentsExcept(StrSegment name, FileOperationErrors *errors) const {
  return removeContents(AllBut(Pathname(*this, name)), errors);
}

bool Pathname::removeBySuffix(StrSegment suffix, FileOperationErrors *errors) const {
  FileOperationScope scope(errors);
  return removeBySuffixIn(At::top(*this), suffix, scope);
}

bool Pathname::removeWithRetries(unsigned attempts, unsigned delayMs) const {
  for (unsigned i = 0; i < attempts; ++i) {
    if (remove()) return true;
    if (i + 1 < attempts) sleepMilliseconds(delayMs);
  }
  return false;
}

bool Pathname::removeContentsWithRetries(int attempts, unsigned delayMs,
                                         FileOperationErrors *errors) const {
  for (int i = 0; i < attempts; ++i) {
    if (removeContents(ALWAYS_TRUE, errors)) return true;
    if (i + 1 < attempts) sleepMilliseconds(delayMs);
  }
  return false;
}

bool Pathname::copyFile(const Pathname &dest, bool fixAttributes) const {
  return copyFileAt(At::top(*this), At::top(dest), fixAttributes);
}

bool Pathname::copyTree(const Pathname &dest, FileOperationErrors *errors, bool keepTimes,
                        bool fixAttributes) const {
  FileOperationScope scope(errors);
  return transferTree(At::top(*this), At::top(dest), {Action::COPY, keepTimes, fixAttributes},
                      scope);
}

bool Pathname::hardLinkTree(const Pathname &dest, FileOperationErrors *errors,
                            bool keepTimes) const {
  FileOperationScope scope(errors);
  return transferTree(At::top(*this), At::top(dest), {Action::HARD_LINK, keepTimes, false}, scope);
}

bool Pathname::moveTree(const Pathname &dest, FileOperationErrors *errors, bool keepTimes) const {
  FileOperationScope scope(errors);
  return transferTree(At::top(*this), At::top(dest), {Action::MOVE, keepTimes, false}, scope);
}

bool Pathname::copyContents(const Pathname &dest, FileOperationErrors *errors,
                            bool fixAttributes) const {
  FileOperationScope scope(errors);
  return transferContents(At::top(*this), At::top(dest), {Action::COPY, false, fixAttributes},
                          scope);
}

bool Pathname::moveFile(const Pathname &dest) const {
  struct stat st;
  if (!statOk(*this, st)) return false;
  if (!S_ISREG(st.st_mode)) {
    errno = EINVAL;
    return false;
  }
  if (renameTo(dest.c_str())) return true;
  return errno == EXDEV && crossDeviceMove(*this, dest);
}

RenameReport Pathname::renameWithRetries(const Pathname &dest, unsigned attempts, unsigned delayMs,
                                         bool crossDeviceAllowed) const {
  RenameReport report;
  report.started = Timeval::now();
  unsigned left = attempts;
  for (;;) {
    ++report.attempts;
    report.finished = Timeval::now();
    if (renameTo(dest.c_str())) {
      report.succeeded = true;
      return report;
    }
    report.errorCode = errno;
    if (errno == EXDEV && crossDeviceAllowed) {
      if (crossDeviceMove(*this, dest)) {
        report.succeeded = true;
        return report;
      }
      report.errorCode = errno;
    }
    // Only shortages that pass with time are worth another try.
    if (report.errorCode != ENOMEM && report.errorCode != ENFILE && report.errorCode != EMFILE) {
      return report;
    }
    if (left < 2) return report;
    --left;
    sleepMilliseconds(delayMs);
  }
}

// ---- File-system information -------------------------------------------------------------------

#define MV_FS_MESSAGE(messages, format, ...)                                                     \
  do {                                                                                           \
    if ((messages) != nullptr)                                                                   \
      (messages)->push_back(Str(Str::FORMAT, "%s:%d " format, __func__, __LINE__, __VA_ARGS__)); \
  } while (0)

namespace {

struct FsMagic {
  unsigned long magic;
  const char *name;
};

// The common types by the numbers the kernel gives in f_type. devtmpfs reports tmpfs's number.
constexpr FsMagic FS_MAGICS[] = {
    {0xEF53, "ext4"},        {0x58465342, "xfs"},   {0x9123683E, "btrfs"},    {0x01021994, "tmpfs"},
    {0x794C7630, "overlay"}, {0x6969, "nfs"},       {0xFF534D42, "cifs"},     {0xFE534D42, "smb2"},
    {0x9FA0, "proc"},        {0x62656572, "sysfs"}, {0x73717368, "squashfs"}, {0x65735546, "fuse"},
    {0x2FC12FC1, "zfs"},     {0x4D44, "vfat"},      {0x9660, "iso9660"},      {0x858458F6, "ramfs"},
    {0x0187, "autofs"},      {0x27E0EB, "cgroup"},  {0x63677270, "cgroup2"},  {0x1CD1, "devpts"},
    {0x64626720, "debugfs"},
};

// blocks x size through a double, held at INT64_MAX.
uint64_t clampedProduct(uint64_t blocks, uint64_t size) {
  double v = static_cast<double>(blocks) * static_cast<double>(size);
  if (v >= 9223372036854775807.0) return static_cast<uint64_t>(INT64_MAX);
  return blocks * size;
}

bool statvfsChecked(const char *path, struct statvfs &sv) {
  if (statvfs(path, &sv) != 0) return false;
  if (sv.f_frsize == 0) {
    errno = EINVAL;
    return false;
  }
  return true;
}

bool filesystemTypeOf(const char *path, Str &out, StrVector *messages) {
  struct statfs sf;
  if (statfs(path, &sf) != 0) {
    MV_FS_MESSAGE(messages, "Failed to stat[v]fs(2) dir='%s': %m", path);
    return false;
  }
  out = filesystemTypeName(static_cast<unsigned long>(sf.f_type));
  return true;
}

}  // namespace

Str filesystemTypeName(unsigned long magic) {
  for (const FsMagic &m : FS_MAGICS) {
    if (m.magic == magic) return Str(m.name);
  }
  return Str(Str::FORMAT, "unknown(0x%lx)", magic);
}

bool getFilesystemType(const char *path, char (&buffer)[FS_TYPE_BUFFER], StrVector *messages) {
  Str name;
  if (!filesystemTypeOf(path, name, messages)) return false;
  size_t n = std::min(name.size(), FS_TYPE_BUFFER - 1);
  memcpy(buffer, name.data(), n);
  buffer[n] = '\0';
  return true;
}

bool wrap__statfs_or_statvfs(const char *path, uint64_t *total, uint64_t *free, uint64_t *available,
                             StrVector *messages) {
  struct statvfs sv;
  if (statvfs(path, &sv) != 0) {
    MV_FS_MESSAGE(messages, "Failed to statvfs(2)%s: %m",
                  Str(Str::FORMAT, " of '%s'", path).c_str());
    return false;
  }
  if (sv.f_frsize == 0) {
    errno = EINVAL;
    MV_FS_MESSAGE(messages, "Failed to find non0 blk size in %s() result: %m", "statvfs");
    return false;
  }
  if (total != nullptr) *total = clampedProduct(sv.f_blocks, sv.f_frsize);
  if (free != nullptr) *free = clampedProduct(sv.f_bfree, sv.f_frsize);
  if (available != nullptr) *available = clampedProduct(sv.f_bavail, sv.f_frsize);
  return true;
}

int64_t getFreeSpace(const char *path) {
  struct statvfs sv;
  if (!statvfsChecked(path, sv)) return -1;
  return static_cast<int64_t>(clampedProduct(sv.f_bavail, sv.f_frsize));
}

bool getSpace(const char *path, uint64_t *total, uint64_t *free) {
  struct statvfs sv;
  if (!statvfsChecked(path, sv)) return false;
  if (total != nullptr) *total = clampedProduct(sv.f_blocks, sv.f_frsize);
  if (free != nullptr) *free = clampedProduct(sv.f_bavail, sv.f_frsize);
  return true;
}

bool getDeviceId(const char *path, uint32_t &out) {
  struct stat st;
  if (::stat(path, &st) != 0) return false;
  out = static_cast<uint32_t>(st.st_dev);
  return true;
}

bool inSameFilesystemAs(const Pathname &ancestorDir, const Pathname &childDir,
                        StrVector *messages) {
  if (messages != nullptr) messages->clear();
  struct stat a, c;
  if (!statOk(ancestorDir, a)) {
    MV_FS_MESSAGE(messages, "Failed to initial stat(2) of ancestorDir='%s': %m",
                  ancestorDir.c_str());
    return false;
  }
  if (!statOk(childDir, c)) {
    MV_FS_MESSAGE(messages, "Failed to stat(2) of childDir='%s': %m", childDir.c_str());
    return false;
  }
  return a.st_dev == c.st_dev;
}

bool getFilesystemConstants(const Pathname &path, FilesystemConstants &constants,
                            StrVector *messages) {
  if (messages != nullptr) messages->clear();
  constants.clear();
  struct stat st;
  if (!statOk(path, st)) {
    MV_FS_MESSAGE(messages, "Failed to initial stat(2) of ancestorDir='%s': %m", path.c_str());
    return false;
  }
  Pathname at;
  if (!path.resolveTo(at)) at = path;
  for (;;) {
    Pathname up = at.parent();
    if (up.empty() || up == at) break;  // the root, or the top of a relative path
    struct stat ust;
    if (!statOk(up, ust)) {
      MV_FS_MESSAGE(messages, "Failed to stat(2) of ancestorDir='%s': %m", up.c_str());
      return false;
    }
    if (ust.st_dev != st.st_dev) break;
    at = std::move(up);
  }
  constants.mount_point = at;
  if (!wrap__statfs_or_statvfs(at.c_str(), &constants.capacity, nullptr, nullptr, nullptr)) {
    MV_FS_MESSAGE(messages, "Failed to stat[v]fs(2) to get capacity; mountPoint='%s': %m",
                  at.c_str());
    return false;
  }
  return filesystemTypeOf(at.c_str(), constants.fs_type, messages);
}

void FilesystemConstants::appendTo(Str &out) const {
  out.append("{capacity=");
  appendByteSize(out, ByteSize{capacity, ByteSize::BINARY});
  out.append(" fs_type=");
  out.append(fs_type);
  out.append(" mount_point=");
  out.append(mount_point);
  out.push_back('}');
}

}  // namespace morvek
