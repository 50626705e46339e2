#include "basicutil/DirectoryDescriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <new>

#include "basicutil/UnicodeCodepoint.h"
#include "libzero/fatal-assert.h"

namespace morvek {

namespace {

constexpr size_t DIRENT_HEADER = 22;
constexpr long MIN_NAME_ROOM = 4096;

bool entryCounts(const char *name) {
  if (name[0] == '\0' || name[0] == '/') return false;
  if (name[0] == '.' && (name[1] == '\0' || (name[1] == '.' && name[2] == '\0'))) return false;
  return true;
}

bool hasHighByte(const char *name) {
  for (; *name != '\0'; ++name) {
    if (static_cast<unsigned char>(*name) >= 0x80) return true;
  }
  return false;
}

}  // namespace

// ---- DirectoryDescriptor ------------------------------------------------------------------

bool DirectoryDescriptor::open(const Pathname &path) {
  close();
  _dir = path.openDirectory();
  return _dir != nullptr;
}

bool DirectoryDescriptor::openAt(int parentFd, const char *name) {
  close();
  int flags = O_RDONLY | O_DIRECTORY | O_CLOEXEC | (parentFd == AT_FDCWD ? 0 : O_NOFOLLOW);
  int fd = openat(parentFd, name, flags);
  if (fd < 0) return false;
  _dir = fdopendir(fd);
  if (_dir == nullptr) {
    int saved = errno;
    ::close(fd);
    errno = saved;
  }
  return _dir != nullptr;
}

void DirectoryDescriptor::close() {
  if (_dir == nullptr) return;
  int saved = errno;
  closedir(_dir);
  _dir = nullptr;
  errno = saved;
}

struct dirent *DirectoryDescriptor::_read_unix_r(DirectoryEntry &de) {
  MV_ASSERT(valid());
  MV_ASSERT(de.valid());
  errno = 0;
  struct dirent *raw = readdir(_dir);
  if (raw == nullptr) return nullptr;
  size_t nameLen = strnlen(raw->d_name, de._size - offsetof(struct dirent, d_name) - 1);
  memcpy(de._ent, raw, offsetof(struct dirent, d_name));
  memcpy(de._ent->d_name, raw->d_name, nameLen);
  de._ent->d_name[nameLen] = '\0';
  return de._ent;
}

// ---- DirectoryEntry -----------------------------------------------------------------------

DirectoryEntry::~DirectoryEntry() { free(_ent); }

size_t DirectoryEntry::bufferSizeFor(const Pathname &path) {
  int saved = errno;
  long room = pathconf(path.c_str(), _PC_NAME_MAX);
  if (room < 0) room = pathconf(".", _PC_NAME_MAX);
  errno = saved;
  return static_cast<size_t>(std::max(room, MIN_NAME_ROOM)) + DIRENT_HEADER;
}

void DirectoryEntry::allocMem(const Pathname &path) {
  MV_ASSERT(!valid());
  DirentSizeCache &cache = DirentSizeCache::instance();
  size_t size = cache.lookup(path);
  if (size == 0) {
    size = bufferSizeFor(path);
    cache.store(path, size);
  }
  size = std::max(size, sizeof(struct dirent));
  _ent = static_cast<struct dirent *>(malloc(size));
  if (_ent == nullptr) throw std::bad_alloc();
  _size = size;
}

// ---- DirectoryReader ----------------------------------------------------------------------

DirectoryReader::~DirectoryReader() = default;

bool DirectoryReader::nextRaw(Str &name, struct dirent **entp) {
  if (_at_end) return false;
  if (!_dd.valid()) {
    if (!_de.valid()) _de.allocMem(_path);
    if (!_dd.open(_path)) {
      _at_end = true;
      return false;
    }
  }
  for (;;) {
    struct dirent *ent = _dd._read_unix_r(_de);
    if (ent == nullptr) {
      _at_end = true;
      _dd.close();
      return false;
    }
    if (!entryCounts(ent->d_name)) continue;
    if (!_keep_stored_names && hasHighByte(ent->d_name)) {
      Str &x = name;
      DirectoryEntry &de = _de;
      x.assign(ent->d_name);
      resolveUnicodeCombiningMarks(x);
      MV_ASSERT(x.size() <= strlen(de._ent->d_name));  // composing only ever shortens
      memcpy(de._ent->d_name, x.c_str(), x.size() + 1);
    } else {
      name.assign(ent->d_name);
    }
    if (entp != nullptr) *entp = ent;
    return true;
  }
}

bool DirectoryReader::openAt(int parentFd, const char *name) {
  _at_end = false;
  if (!_de.valid()) _de.allocMem(_path);
  if (_dd.openAt(parentFd, name)) return true;
  _at_end = true;
  return false;
}

bool DirectoryReader::next(Str &name) { return nextRaw(name, nullptr); }

bool DirectoryReader::nextWithType(Str &name, EntryType &type) {
  struct dirent *ent = nullptr;
  if (!nextRaw(name, &ent)) return false;
  if (ent->d_type == DT_REG || ent->d_type == DT_DIR) {
    type = ent->d_type == DT_REG ? TYPE_FILE : TYPE_DIRECTORY;
    return true;
  }
  struct stat st;
  type = TYPE_OTHER;
  if (::stat(Pathname(_path, name).c_str(), &st) == 0) {
    if (S_ISREG(st.st_mode)) type = TYPE_FILE;
    if (S_ISDIR(st.st_mode)) type = TYPE_DIRECTORY;
  }
  return true;
}

bool DirectoryReader::nextDirectory(Str &name) {
  EntryType type;
  while (nextWithType(name, type)) {
    if (type == TYPE_DIRECTORY) return true;
  }
  return false;
}

bool DirectoryReader::nextRegularFile(Str &name) {
  EntryType type;
  while (nextWithType(name, type)) {
    if (type != TYPE_DIRECTORY) return true;
  }
  return false;
}

bool DirectoryReader::readAllNames(const Pathname &path, StrSet &names) {
  DirectoryReader reader(path);
  Str name;
  while (reader.next(name)) names.insert(name);
  return errno == 0;
}

bool SortedDirectoryReader::next(Str &name) {
  if (!_loaded) {
    Str one;
    while (DirectoryReader::next(one)) _names.insert(one);
    _loaded = true;
    _next = _names.begin();
  }
  if (_next == _names.end()) return false;
  name = *_next++;
  return true;
}

// ---- DirentSizeCache ----------------------------------------------------------------------

DirentSizeCache &DirentSizeCache::instance() {
  static DirentSizeCache *cache = new DirentSizeCache();  // never freed: used until exit
  return *cache;
}

size_t DirentSizeCache::lookup(const Str &path) {
  ScopedMutexLock lock(_mutex);
  auto hit = _current.find(path);
  if (hit != _current.end()) return hit->second;
  auto old = _older.find(path);
  if (old == _older.end()) return 0;
  size_t size = old->second;
  _current.insert(_older.extract(old));
  return size;
}

void DirentSizeCache::store(const Str &path, size_t size, MonotonicTime now) {
  ScopedMutexLock lock(_mutex);
  if (_current.size() >= ROTATE_AT_ENTRIES &&
      MonotonicTime::differenceInMilliseconds(now, _last_rotation) >= ROTATE_AFTER_MS) {
    _older.swap(_current);
    _current.clear();
    _last_rotation = now;
  }
  _current[path] = size;
}

size_t DirentSizeCache::currentSize() {
  ScopedMutexLock lock(_mutex);
  return _current.size();
}

size_t DirentSizeCache::olderSize() {
  ScopedMutexLock lock(_mutex);
  return _older.size();
}

}  // namespace morvek
