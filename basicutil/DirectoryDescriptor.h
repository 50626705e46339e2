// Directory reading. DirectoryDescriptor owns a DIR*; DirectoryEntry owns the buffer one entry is
// read into, sized per file system; DirectoryReader walks a directory by name, never returning
// "." or "..", with names that hold bytes at or above 128 brought to precomposed form (a name
// written as "e" + U+0301 reads back as "é"). SortedDirectoryReader gives the names in byte order.
// Failures give false or null with errno as the system left it.
#pragma once

#include <dirent.h>

#include <cstddef>
#include <cstdint>
#include <unordered_map>

#include "basicutil/Pathname.h"
#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "basicutil/Thread.h"
#include "basicutil/Timeval.h"

namespace morvek {

class DirectoryEntry;

class DirectoryDescriptor {
 public:
  DirectoryDescriptor() : _dir(nullptr) {}
  ~DirectoryDescriptor() { close(); }
  DirectoryDescriptor(const DirectoryDescriptor &) = delete;
  DirectoryDescriptor &operator=(const DirectoryDescriptor &) = delete;

  bool valid() const { return _dir != nullptr; }
  // Closes what was open first.
  bool open(const Pathname &path);
  // The directory name inside the open directory parentFd: walks that go deeper than PATH_MAX
  // work from descriptors. A link is followed only at the top (parentFd AT_FDCWD), so a walk
  // can't be led out of its tree by a directory swapped for a link.
  bool openAt(int parentFd, const char *name);
  // The descriptor under the open directory, for the *at calls.
  int fd() const { return dirfd(_dir); }
  // closedir; errno survives a failing close.
  void close();
  // The next raw entry copied into de, or null at the end or on an error (errno tells which:
  // it is 0 at the end).
  struct dirent *_read_unix_r(DirectoryEntry &de);

  DIR *_dir;
};

class DirectoryEntry {
 public:
  DirectoryEntry() : _ent(nullptr), _size(0) {}
  ~DirectoryEntry();
  DirectoryEntry(const DirectoryEntry &) = delete;
  DirectoryEntry &operator=(const DirectoryEntry &) = delete;

  bool valid() const { return _ent != nullptr; }
  // A buffer large enough for any name on path's file system; std::bad_alloc when out of memory.
  void allocMem(const Pathname &path);
  // pathconf's longest name for path (or ".", or at least 4096) plus the entry header.
  static size_t bufferSizeFor(const Pathname &path);

  struct dirent *_ent;
  size_t _size;
};

class DirectoryReader {
 public:
  // The kinds nextWithType reports; OTHER covers links, devices and what stat can't reach.
  enum EntryType : int { TYPE_OTHER = 0, TYPE_DIRECTORY = 4, TYPE_FILE = 8 };

  explicit DirectoryReader(const Pathname &path)
      : _path(path), _at_end(false), _keep_stored_names(false) {}
  virtual ~DirectoryReader();

  // The next name; opens the directory on first use. At the end (or on a failure to open or
  // read, with errno set) it closes the directory and gives false, then false again.
  virtual bool next(Str &name);
  // As next, with the type from the entry, or from stat (links followed) when the entry
  // doesn't say file or directory.
  bool nextWithType(Str &name, EntryType &type);
  bool nextDirectory(Str &name);
  // Stops at the first entry that isn't a directory.
  bool nextRegularFile(Str &name);

  // Every name of path into names; false when the directory couldn't be opened or read.
  static bool readAllNames(const Pathname &path, StrSet &names);

  // Opens now, by name inside parentFd; next() then reads this directory. path stays the name
  // used for reports and the buffer size.
  bool openAt(int parentFd, const char *name);
  const Pathname &path() const { return _path; }
  // The type field (DT_*) of the entry next() returned last; DT_UNKNOWN where the file system
  // doesn't fill it in.
  unsigned char lastType() const { return _de._ent->d_type; }
  // Names come back as stored, without the combining-mark resolution: the file system doesn't
  // normalise, so a walk that acts on its entries must name them byte for byte.
  void keepStoredNames() { _keep_stored_names = true; }

  DirectoryDescriptor _dd;
  DirectoryEntry _de;
  Pathname _path;
  bool _at_end;
  bool _keep_stored_names;

 protected:
  bool nextRaw(Str &name, struct dirent **entp);
};

class SortedDirectoryReader : public DirectoryReader {
 public:
  explicit SortedDirectoryReader(const Pathname &path) : DirectoryReader(path), _loaded(false) {}
  // The names in byte order; all of them are read at the first call.
  bool next(Str &name) override;

  bool _loaded;
  StrSet _names;
  StrSet::const_iterator _next;
};

// pathconf is slow, so entry sizes are kept per path. Two generations of maps: when the current
// one holds 201 entries and 150 seconds have passed since the last rotation, the older map is
// dropped and the current one takes its place. A hit in the older map moves the entry back, so
// paths in use survive without a time stamp each.
class DirentSizeCache {
 public:
  static constexpr size_t ROTATE_AT_ENTRIES = 201;
  static constexpr int64_t ROTATE_AFTER_MS = 150001;

  explicit DirentSizeCache(MonotonicTime created = MonotonicTime::now())
      : _last_rotation(created) {}
  static DirentSizeCache &instance();

  // 0 on a miss.
  size_t lookup(const Str &path);
  void store(const Str &path, size_t size, MonotonicTime now = MonotonicTime::now());
  size_t currentSize();
  size_t olderSize();

 private:
  struct Hash {
    size_t operator()(const Str &s) const { return std::hash<std::string_view>()(s); }
  };
  using Map = std::unordered_map<Str, size_t, Hash>;

  PthreadMutex _mutex;
  Map _current;
  Map _older;
  MonotonicTime _last_rotation;
};

}  // namespace morvek
