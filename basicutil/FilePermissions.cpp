#include "basicutil/FilePermissions.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <vector>

#include "basicutil/BasicConversions.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

FileDescriptor create(const char *path, int flags, int createmode) {
  return FileDescriptor(path, flags, FilePermissions::createmode_to_perm(createmode));
}

size_t lookupBufferSize(int name) {
  long n = sysconf(name);
  return n > 0 ? static_cast<size_t>(n) : 1024;
}

// getpwuid_r and getgrgid_r share their shape: retry with a larger buffer on ERANGE.
template <class Record, class Lookup>
bool appendAccountName(Lookup lookup, int sizeName, Str &out) {
  size_t size = lookupBufferSize(sizeName);
  for (;;) {
    std::vector<char> buf(size);
    Record rec;
    Record *found = nullptr;
    int rc = lookup(&rec, buf.data(), buf.size(), &found);
    if (rc == ERANGE && size < (1u << 20)) {
      size *= 4;
      continue;
    }
    if (rc != 0 || found == nullptr) return false;
    if constexpr (std::is_same_v<Record, struct passwd>) {
      out.append(found->pw_name);
    } else {
      out.append(found->gr_name);
    }
    return true;
  }
}

}  // namespace

mode_t FilePermissions::createmode_to_perm(int cm) {
  switch (cm) {
    case Pathname::CREATE_NORMAL:
      return 0644;
    case Pathname::CREATE_PRIVATE:
      return 0600;
    case Pathname::CREATE_READONLY:
      return 0440;
  }
  MV_ASSERT(cm == Pathname::CREATE_NORMAL);
  return 0644;
}

mode_t FilePermissions::mkdirmode_to_perm(int mode) {
  switch (mode) {
    case MKDIR_PRIVATE:
      return 0700;
    case MKDIR_GROUP:
      return 0770;
    case MKDIR_PUBLIC:
      return 0777;
    case MKDIR_NORMAL:
      return 0755;
  }
  MV_ASSERT(mode == MKDIR_PRIVATE);
  return 0700;
}

FileDescriptor FilePermissions::createExclusive(const char *path, int createmode) {
  return create(path, O_WRONLY | O_CREAT | O_EXCL, createmode);
}

FileDescriptor FilePermissions::createTruncate(const char *path, int createmode) {
  return create(path, O_WRONLY | O_CREAT | O_TRUNC, createmode);
}

FileDescriptor FilePermissions::createAppend(const char *path, int createmode) {
  return create(path, O_WRONLY | O_CREAT | O_APPEND, createmode);
}

FileDescriptor FilePermissions::createReadWrite(const char *path, int createmode) {
  return create(path, O_RDWR | O_CREAT, createmode);
}

bool FilePermissions::mkdir(const char *path, int mode) {
  return ::mkdir(path, mkdirmode_to_perm(mode)) == 0;
}

bool FilePermissions::mkdirAt(int dirFd, const char *name, int mode) {
  return mkdirat(dirFd, name, mkdirmode_to_perm(mode)) == 0;
}

bool FilePermissions::canRead(const char *path) { return access(path, R_OK) == 0; }
bool FilePermissions::canWrite(const char *path) { return access(path, W_OK) == 0; }
bool FilePermissions::canReadWrite(const char *path) { return access(path, R_OK | W_OK) == 0; }
bool FilePermissions::canReadWriteExecute(const char *path) {
  return access(path, R_OK | W_OK | X_OK) == 0;
}

bool FilePermissions::userName(uid_t uid, Str &out) {
  return appendAccountName<struct passwd>(
      [uid](struct passwd *r, char *b, size_t n, struct passwd **f) {
        return getpwuid_r(uid, r, b, n, f);
      },
      _SC_GETPW_R_SIZE_MAX, out);
}

bool FilePermissions::groupName(gid_t gid, Str &out) {
  return appendAccountName<struct group>(
      [gid](struct group *r, char *b, size_t n, struct group **f) {
        return getgrgid_r(gid, r, b, n, f);
      },
      _SC_GETGR_R_SIZE_MAX, out);
}

bool FilePermissions::userNameOrNumber(uid_t uid, Str &out) {
  out.clear();
  if (!userName(uid, out)) appendNumber(out, uid);
  return true;
}

bool FilePermissions::groupNameOrNumber(gid_t gid, Str &out) {
  out.clear();
  if (!groupName(gid, out)) appendNumber(out, gid);
  return true;
}

FILE *FilePermissions::toFileStar(FileDescriptor &fd, const char *mode) {
  if (!fd.valid()) return nullptr;
  FILE *fp = fdopen(fd.fd(), mode);
  if (fp == nullptr) {
    fd.closeQuietly();
    return nullptr;
  }
  fd.release();
  return fp;
}

FILE *FilePermissions::openFileStar(const char *path, const char *mode) {
  return fopen(path, mode);
}

void FilePermissions::temporaryDirectory(Str &out) {
  const char *dir = getenv("TMPDIR");
  out.assign(dir != nullptr && *dir != '\0' ? dir : "/tmp");
}

FILE *FilePermissions::makeTemporaryFile(Str *name) {
  Str dir;
  temporaryDirectory(dir);
  Pathname path(dir, "teutiltmp.XXXXXX");
  FileDescriptor fd(mkstemp(path.data()));
  if (!fd.valid()) return nullptr;
  if (name == nullptr) {
    ::unlink(path.c_str());
  } else {
    *name = path;
  }
  return toFileStar(fd, "w+b");
}

}  // namespace morvek
