// Directory reading, the entry-size cache and FilePermissions.
#include "basicutil/DirectoryDescriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "basicutil/FilePermissions.h"
#include "testutil.h"

namespace {

using morvek::DirectoryReader;
using morvek::DirentSizeCache;
using morvek::FilePermissions;
using morvek::MonotonicTime;
using morvek::Pathname;
using morvek::SortedDirectoryReader;
using morvek::Str;
using morvek::StrSet;

struct TempDir {
  Pathname path{testutil::makeTempDir()};
  ~TempDir() { std::filesystem::remove_all(path.c_str()); }
  Pathname touch(const char *name) const {
    Pathname p(path, name);
    close(open(p.c_str(), O_WRONLY | O_CREAT, 0644));
    return p;
  }
};

TEST(DirectoryReader, NamesTypesAndOrder) {
  TempDir d;
  DirectoryReader empty(d.path);
  Str name;
  EXPECT_FALSE(empty.next(name) || empty.next(name));  // and stays at the end

  d.touch("b");
  d.touch("a b");
  d.touch("e\xcc\x81");  // "e" + combining acute, read back precomposed
  mkdir(Pathname(d.path, "sub").c_str(), 0755);
  symlink("sub", Pathname(d.path, "link").c_str());
  StrSet names;
  ASSERT_TRUE(DirectoryReader::readAllNames(d.path, names));
  EXPECT_EQ(names, (StrSet{"a b", "b", "\xc3\xa9", "link", "sub"}));  // no "." or ".."

  DirectoryReader typed(d.path);
  DirectoryReader::EntryType type;
  while (typed.nextWithType(name, type)) {
    bool wantDir = name == "sub" || name == "link";  // the link is followed
    EXPECT_EQ(type, wantDir ? DirectoryReader::TYPE_DIRECTORY : DirectoryReader::TYPE_FILE) << name;
  }
  DirectoryReader onlyDirs(d.path), onlyFiles(d.path);
  StrSet seenDirs, seenFiles;
  while (onlyDirs.nextDirectory(name)) seenDirs.insert(name);
  while (onlyFiles.nextRegularFile(name)) seenFiles.insert(name);
  EXPECT_EQ(seenDirs, (StrSet{"link", "sub"}));
  EXPECT_EQ(seenFiles.size(), 3u);

  SortedDirectoryReader sorted(d.path);
  Str all;
  while (sorted.next(name)) all += name + "|";
  EXPECT_EQ(all, "a b|b|link|sub|\xc3\xa9|");

  EXPECT_FALSE(DirectoryReader::readAllNames(Pathname(d.path, "nope"), names));
  EXPECT_EQ(errno, ENOENT);
}

TEST(DirentSizeCache, RotatesOnlyWhenFullAndOld) {
  MonotonicTime t0(1000, 0);
  DirentSizeCache cache(t0);
  auto key = [](int i) { return Str("/p" + std::to_string(i)); };
  for (int i = 0; i < 201; ++i) cache.store(key(i), 100 + i, t0);
  MonotonicTime early = t0, late = t0;
  early.addMilliseconds(150000);
  late.addMilliseconds(150001);
  cache.store(key(201), 1, early);  // full, but too soon: it just grows
  EXPECT_EQ(cache.currentSize(), 202u);
  EXPECT_EQ(cache.olderSize(), 0u);
  cache.store(key(202), 2, late);
  EXPECT_EQ(cache.currentSize(), 1u);
  EXPECT_EQ(cache.olderSize(), 202u);
  EXPECT_EQ(cache.lookup(key(5)), 105u);  // found in the older map, and moved back
  EXPECT_EQ(cache.currentSize(), 2u);
  EXPECT_EQ(cache.olderSize(), 201u);
  EXPECT_EQ(cache.lookup("/never"), 0u);
}

TEST(FilePermissions, ModesFlagsAndNames) {
  TempDir d;
  umask(022);
  struct Case {
    int cm;
    mode_t perm;
  } cases[] = {{Pathname::CREATE_PRIVATE, 0600}, {Pathname::CREATE_READONLY, 0440}};
  for (const Case &c : cases) {
    Pathname p(d.path, std::to_string(c.cm));
    ASSERT_TRUE(FilePermissions::createExclusive(p.c_str(), c.cm).valid());
    EXPECT_FALSE(FilePermissions::createExclusive(p.c_str(), c.cm).valid());
    EXPECT_EQ(errno, EEXIST);
    struct stat st;
    ASSERT_EQ(stat(p.c_str(), &st), 0);
    EXPECT_EQ(st.st_mode & 0777, c.perm);
  }
  ASSERT_TRUE(FilePermissions::mkdir(Pathname(d.path, "g").c_str(), FilePermissions::MKDIR_GROUP));
  struct stat st;
  ASSERT_EQ(stat(Pathname(d.path, "g").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0750u);  // 0770 under the umask

  Pathname app(d.path, "app");
  morvek::FileDescriptor a1 = FilePermissions::createAppend(app.c_str(), 0);
  a1.write("ab", 2);
  morvek::FileDescriptor a2 = FilePermissions::createAppend(app.c_str(), 0);
  a2.write("cd", 2);
  morvek::FileDescriptor tr = FilePermissions::createTruncate(app.c_str(), 0);
  uint64_t size = 9;
  ASSERT_TRUE(app.getSize(size));
  EXPECT_EQ(size, 0u);

  Str name;
  EXPECT_TRUE(FilePermissions::groupNameOrNumber(0, name) && name == "root");
  EXPECT_TRUE(FilePermissions::userNameOrNumber(54321, name) && name == "54321");

  morvek::FileDescriptor rd(app.c_str());
  FILE *fp = FilePermissions::toFileStar(rd, "r");
  ASSERT_NE(fp, nullptr);
  EXPECT_FALSE(rd.valid());  // the stream owns it now
  fclose(fp);
}

TEST(FilePermissions, TemporaryFiles) {
  TempDir d;
  setenv("TMPDIR", d.path.c_str(), 1);
  Str dir;
  FilePermissions::temporaryDirectory(dir);
  EXPECT_EQ(dir, d.path);
  FILE *anonymous = FilePermissions::makeTemporaryFile(nullptr);
  ASSERT_NE(anonymous, nullptr);
  StrSet names;
  DirectoryReader::readAllNames(d.path, names);
  EXPECT_TRUE(names.empty());  // no path left on the disk while it is open
  Str kept;
  FILE *named = FilePermissions::makeTemporaryFile(&kept);
  ASSERT_NE(named, nullptr);
  EXPECT_TRUE(kept.startsWith(d.path + "/teutiltmp."));
  EXPECT_EQ(access(kept.c_str(), F_OK), 0);
  fclose(anonymous);
  fclose(named);
  setenv("TMPDIR", "", 1);
  FilePermissions::temporaryDirectory(dir);
  EXPECT_EQ(dir, "/tmp");
  unsetenv("TMPDIR");
}

}  // namespace
