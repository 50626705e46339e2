// FilePermissions: the one place that decides the permission bits and open flags with which the
// library creates files and directories, plus the access tests, owners' names and temporary
// files that go with them. Callers name a choice (Pathname::CREATE_PRIVATE, MKDIR_NORMAL), never
// a mode. Failures give false, null or an invalid descriptor with errno as the system set it.
#pragma once

#include <sys/types.h>

#include <cstdio>

#include "basicutil/FileDescriptor.h"
#include "basicutil/Pathname.h"
#include "basicutil/Str.h"

namespace morvek {

class FilePermissions {
 public:
  enum MkdirMode : int { MKDIR_PRIVATE = 0, MKDIR_GROUP = 1, MKDIR_PUBLIC = 2, MKDIR_NORMAL = 3 };

  // 0644, 0600 or 0440 for CREATE_NORMAL, CREATE_PRIVATE, CREATE_READONLY; anything else is a
  // fatal assertion.
  static mode_t createmode_to_perm(int cm);
  // 0700, 0770, 0777 or 0755; anything else is a fatal assertion.
  static mode_t mkdirmode_to_perm(int mode);

  // O_WRONLY with O_CREAT and O_EXCL, O_TRUNC or O_APPEND; O_RDWR|O_CREAT.
  static FileDescriptor createExclusive(const char *path, int createmode);
  static FileDescriptor createTruncate(const char *path, int createmode);
  static FileDescriptor createAppend(const char *path, int createmode);
  static FileDescriptor createReadWrite(const char *path, int createmode);
  static bool mkdir(const char *path, int mode);
  // The same, by name inside the open directory dirFd (or AT_FDCWD).
  static bool mkdirAt(int dirFd, const char *name, int mode);

  // access with R_OK, W_OK, both, or all three.
  static bool canRead(const char *path);
  static bool canWrite(const char *path);
  static bool canReadWrite(const char *path);
  static bool canReadWriteExecute(const char *path);

  // Appends the account's name; false when there is none.
  static bool userName(uid_t uid, Str &out);
  static bool groupName(gid_t gid, Str &out);
  // The name, or the decimal id when there is none; out is replaced. Always true.
  static bool userNameOrNumber(uid_t uid, Str &out);
  static bool groupNameOrNumber(gid_t gid, Str &out);

  // fdopen: on success the stream owns the descriptor (fd becomes invalid); on failure fd is
  // closed. An invalid fd gives null.
  static FILE *toFileStar(FileDescriptor &fd, const char *mode);
  static FILE *openFileStar(const char *path, const char *mode);

  // TMPDIR when set and not empty, else "/tmp".
  static void temporaryDirectory(Str &out);
  // A new "w+b" stream on <tmp>/teutiltmp.XXXXXX. With name null the file is unlinked at once;
  // otherwise its path is stored there and it stays.
  static FILE *makeTemporaryFile(Str *name);
};

}  // namespace morvek
