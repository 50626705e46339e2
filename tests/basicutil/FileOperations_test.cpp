// File-system operations on real trees: copying, linking, moving and removing, compared entry by
// entry; failures as an unprivileged user; cross-device renames; retries; file-system facts.
#include "basicutil/FileOperations.h"

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <functional>
#include <map>
#include <string>

#include "basicutil/DirectoryDescriptor.h"
#include "basicutil/FileDescriptor.h"
#include "basicutil/SimpleRandomNumber.h"
#include "testutil.h"

namespace {

using morvek::FileOperationError;
using morvek::FileOperationErrors;
using morvek::Pathname;
using morvek::Str;

constexpr uid_t NOBODY = 65534;

struct TempDir {
  Pathname path{testutil::makeTempDir()};
  ~TempDir() { Pathname(path).removeTree(); }
  Pathname operator/(const char *name) const { return Pathname(path, name); }
};

void writeAt(int dirFd, const char *name, const std::string &content, mode_t mode = 0644) {
  morvek::FileDescriptor fd(openat(dirFd, name, O_WRONLY | O_CREAT | O_TRUNC, mode));
  ASSERT_TRUE(fd.valid()) << name;
  fd.write(content.data(), content.size());
}

void writeFile(const Pathname &p, const std::string &content, mode_t mode = 0644) {
  writeAt(AT_FDCWD, p.c_str(), content, mode);
}

// Blanks, a newline, invalid UTF-8, a decomposed accent, links of every kind, a hard link, a
// read-only file and directory, and a chain of directories deeper than PATH_MAX.
void buildTree(const Pathname &root) {
  ASSERT_TRUE(Pathname(root, "a/b/c").makeDirectories(0755));
  ASSERT_TRUE(Pathname(root, "empty").makeDirectories(0700));
  writeFile(Pathname(root, "top.txt"), "hello");
  writeFile(Pathname(root, "a/b/c/deep.txt"), std::string(10000, 'd'));
  writeFile(Pathname(root, "name with blanks.txt"), "b");
  writeFile(Pathname(root, "new\nline"), "n");
  writeFile(Pathname(root, "bad\xff\xfe"), "u");
  writeFile(Pathname(root, "e\xcc\x81"), "decomposed");
  writeFile(Pathname(root, "ro.txt"), "r", 0444);
  symlink("top.txt", Pathname(root, "link-file").c_str());
  symlink("a/b", Pathname(root, "link-dir").c_str());
  symlink("nowhere", Pathname(root, "dangling").c_str());
  symlink("loop", Pathname(root, "loop").c_str());
  link(Pathname(root, "top.txt").c_str(), Pathname(root, "hard").c_str());
  int fd = open(root.c_str(), O_RDONLY | O_DIRECTORY);
  const std::string segment(200, 'L');
  for (int i = 0; i < 22; ++i) {  // 22 x 201 bytes: past PATH_MAX
    mkdirat(fd, segment.c_str(), 0755);
    int next = openat(fd, segment.c_str(), O_RDONLY | O_DIRECTORY);
    close(fd);
    fd = next;
  }
  writeAt(fd, "bottom", "deepest");
  close(fd);
  chmod(Pathname(root, "a/b").c_str(), 0555);
}

// Every entry below dirFd by relative path: type, permission bits, and contents or link target.
void snapshotAt(int dirFd, const std::string &prefix, std::map<std::string, std::string> &out) {
  DIR *d = fdopendir(dirFd);
  ASSERT_NE(d, nullptr);
  while (struct dirent *e = readdir(d)) {
    std::string name = e->d_name;
    if (name == "." || name == "..") continue;
    struct stat st;
    ASSERT_EQ(fstatat(dirFd, e->d_name, &st, AT_SYMLINK_NOFOLLOW), 0);
    std::string desc = std::to_string(st.st_mode & 07777) + " ";
    if (S_ISLNK(st.st_mode)) {
      char buf[256];
      ssize_t n = readlinkat(dirFd, e->d_name, buf, sizeof buf);
      desc += "link " + std::string(buf, n > 0 ? n : 0);
    } else if (S_ISDIR(st.st_mode)) {
      desc += "dir";
      snapshotAt(openat(dirFd, e->d_name, O_RDONLY | O_DIRECTORY), prefix + name + "/", out);
    } else {
      Str content;
      morvek::FileDescriptor(openat(dirFd, e->d_name, O_RDONLY)).readAll(content);
      desc += "file " + content;
    }
    out[prefix + name] = desc;
  }
  closedir(d);
}

std::map<std::string, std::string> snapshot(const Pathname &root) {
  std::map<std::string, std::string> out;
  snapshotAt(open(root.c_str(), O_RDONLY | O_DIRECTORY), "", out);
  return out;
}

ino_t inode(const Pathname &p) {
  struct stat st {};
  stat(p.c_str(), &st);
  return st.st_ino;
}

// Runs body in a child as nobody; its text (empty for success) comes back, "SKIP" when the
// drop isn't possible here.
std::string asNobody(const std::function<std::string()> &body) {
  int p[2];
  if (pipe(p) != 0) return "pipe";
  pid_t pid = fork();
  if (pid == 0) {
    close(p[0]);
    std::string msg = setgid(NOBODY) == 0 && setuid(NOBODY) == 0 ? body() : "SKIP";
    (void)!write(p[1], msg.data(), msg.size());
    _exit(0);
  }
  close(p[1]);
  std::string msg;
  char buf[4096];
  for (ssize_t n; (n = read(p[0], buf, sizeof buf)) > 0;) msg.append(buf, n);
  close(p[0]);
  waitpid(pid, nullptr, 0);
  return msg;
}

Pathname shmDir() {
  char tmpl[] = "/dev/shm/morvek-test-XXXXXX";
  return Pathname(mkdtemp(tmpl));
}

bool differentDevices(const char *a, const char *b) {
  struct stat sa, sb;
  return stat(a, &sa) == 0 && stat(b, &sb) == 0 && sa.st_dev != sb.st_dev;
}

TEST(FileOperationsTree, CopyLinkMoveAndRemoveCompareEntryByEntry) {
  umask(022);
  TempDir t;
  Pathname src = t / "src";
  ASSERT_TRUE(src.makeDirectories(0755));
  buildTree(src);
  const auto want = snapshot(src);
  ASSERT_GT(want.size(), 30u);

  FileOperationErrors errors;
  ASSERT_TRUE(src.copyTree(t / "copy", &errors)) << errors.toString();
  EXPECT_EQ(errors.count, 0u);
  EXPECT_EQ(snapshot(t / "copy"), want);
  EXPECT_NE(inode(t / "copy/top.txt"), inode(Pathname(src, "top.txt")));

  ASSERT_TRUE(src.hardLinkTree(t / "linked", &errors, true)) << errors.toString();
  EXPECT_EQ(snapshot(t / "linked"), want);
  EXPECT_EQ(inode(t / "linked/top.txt"), inode(Pathname(src, "top.txt")));

  // Moving the copy: every file goes, the directories stay behind.
  ASSERT_TRUE(Pathname(t / "copy").moveTree(t / "moved", &errors)) << errors.toString();
  EXPECT_EQ(snapshot(t / "moved"), want);
  for (const auto &[rel, desc] : snapshot(t / "copy"))
    EXPECT_NE(desc.find(" dir"), std::string::npos) << rel;

  for (const char *dir : {"copy", "linked", "moved"}) {
    ASSERT_TRUE(Pathname(t / dir).removeTree(Pathname::ALWAYS_TRUE, &errors))
        << dir << errors.toString();
    EXPECT_FALSE(Pathname(t / dir).exists());
  }
  EXPECT_EQ(snapshot(src), want);  // the source was never touched
  src.copyContents(t / "missing-dest", &errors);
  EXPECT_EQ(errors.count, 1u);
}

TEST(FileOperationsTree, SelectiveRemoval) {
  TempDir t;
  for (const char *f : {"keep/x.log", "keep/x.tmp", "d/e/y.tmp", "d/e/y.log", "z.tmp"}) {
    ASSERT_TRUE(Pathname(t.path, f).parent().makeDirectories(0755));
    writeFile(Pathname(t.path, f), f);
  }
  ASSERT_TRUE(t.path.removeBySuffix(".tmp"));
  struct SpareLogs : Pathname::predicate {
    Pathname::Decision operator()(const Pathname &p) const override {
      return {!p.endsWith(".log"), true};
    }
  };
  ASSERT_TRUE(Pathname(t / "d").removeTree(SpareLogs()));
  EXPECT_TRUE(Pathname(t / "d/e/y.log").exists());
  ASSERT_TRUE(t.path.removeContentsExcept("keep"));
  std::map<std::string, std::string> want{{"keep", "493 dir"},
                                          {"keep/x.log", "420 file keep/x.log"}};
  EXPECT_EQ(snapshot(t.path), want);

  FileOperationErrors errors;
  EXPECT_FALSE(Pathname(t / "nope").removeTree(Pathname::ALWAYS_TRUE, &errors));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(errors.toString(),
            "1 errors occurred, description of first error: [{operation:\"failed to remove file\", "
            "error:\"No such file or directory\", file:\"" +
                t.path + "/nope\"}]");
  errno = 0;
  EXPECT_FALSE(Pathname(t / "nope").removeTreeIgnoringMissing());
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(Pathname(t / "keep").removeWithRetries(0, 1));
  EXPECT_FALSE(Pathname(t / "keep").removeContentsWithRetries(0, 1));
  EXPECT_TRUE(Pathname(t / "keep").removeContentsWithRetries(2, 1));
  EXPECT_TRUE(Pathname(t / "keep").removeWithRetries(2, 1));
}

TEST(FileOperationsTree, FailuresAsAnUnprivilegedUser) {
  TempDir t;
  chmod(t.path.c_str(), 0755);
  Pathname locked = t / "locked";
  ASSERT_TRUE(locked.makeDirectories(0755));
  for (int i = 0; i < 40; ++i) writeFile(Pathname(locked, std::to_string(i).c_str()), "x");
  std::string msg = asNobody([&]() -> std::string {
    FileOperationErrors errors;
    if (locked.removeTree(Pathname::ALWAYS_TRUE, &errors)) return "removed";
    if (errno != EACCES) return "errno " + std::to_string(errno);
    std::string out;
    if (errors.count != 40) out += "counts " + errors.toString();
    if (locked.copyTree(Pathname(locked, "sub"), &errors) ||
        errors.errors[0].operation != "creating destination directory") {
      out += " copy: " + errors.toString();
    }
    return out;
  });
  if (msg == "SKIP") GTEST_SKIP() << "can't become an unprivileged user here";
  EXPECT_EQ(msg, "");
  EXPECT_TRUE(Pathname(locked, "39").exists());
}

TEST(FileOperationsRename, AcrossDevices) {
  if (!differentDevices("/tmp", "/dev/shm")) GTEST_SKIP() << "/tmp and /dev/shm share a device";
  TempDir t;
  Pathname shm = shmDir();
  Pathname src = t / "f";
  writeFile(src, "payload", 0640);
  ASSERT_TRUE(src.moveFile(Pathname(shm, "moved")));
  EXPECT_EQ(snapshot(shm), (std::map<std::string, std::string>{{"moved", "416 file payload"}}));

  morvek::RenameReport r = src.renameWithRetries(Pathname(shm, "again"), 3, 1, true);
  EXPECT_TRUE(r.succeeded);
  EXPECT_EQ(r.attempts, 1u);
  Str text;
  r.appendTo(text);
  EXPECT_TRUE(text.startsWith("Rename succeeded in 1 attempt(s) made between ")) << text;

  // The final rename fails (a directory is in the way): the temporary goes again.
  ASSERT_TRUE(Pathname(shm, "busy/inner").makeDirectories(0700));
  EXPECT_FALSE(src.moveFile(Pathname(shm, "busy")));
  morvek::StrSet names;
  morvek::DirectoryReader::readAllNames(shm, names);
  EXPECT_EQ(names, (morvek::StrSet{"again", "busy", "moved"}));
  EXPECT_FALSE(src.renameWithRetries(Pathname(shm, "x"), 3, 1, false).succeeded);
  shm.removeTree();
}

TEST(FileOperationsRename, RetriesOnlyShortages) {
  TempDir t;
  morvek::RenameReport missing = Pathname(t / "none").renameWithRetries(t / "x", 5, 1, true);
  EXPECT_EQ(missing.attempts, 1u);
  EXPECT_EQ(missing.errorCode, ENOENT);
  Str text;
  missing.appendTo(text);
  EXPECT_NE(text.find(" failed in 1 attempt(s) made between "), Str::npos) << text;
  EXPECT_TRUE(text.endsWith(" [status code: 2 description: \"No such file or directory\"]"));

  if (!differentDevices("/tmp", "/dev/shm")) GTEST_SKIP() << "/tmp and /dev/shm share a device";
  Pathname src = t / "f";
  writeFile(src, "x");
  Pathname dest = shmDir();
  // Out of descriptors, the cross-device copy can't make its temporary: EMFILE, retried.
  pid_t pid = fork();
  if (pid == 0) {
    struct rlimit rl = {64, 64};
    setrlimit(RLIMIT_NOFILE, &rl);
    // The retry's jitter checks the thread's dynamic type; UBSan verifies that through a pipe,
    // which it can't make once the descriptors are gone, so the check is made while it can.
    morvek::SimpleRandomNumber::perThread();
    while (open("/dev/null", O_RDONLY) >= 0) {
    }
    morvek::Timeval before = morvek::Timeval::now();
    morvek::RenameReport r = src.renameWithRetries(Pathname(dest, "y"), 3, 20, true);
    int64_t ms = morvek::usecDifference(r.finished, before) / 1000;
    _exit(!r.succeeded && r.attempts == 3 && r.errorCode == EMFILE && ms >= 40 ? 0 : 1);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
  morvek::StrSet left;
  morvek::DirectoryReader::readAllNames(dest, left);
  EXPECT_TRUE(left.empty());
  dest.removeTree();
}

TEST(FileOperationsFile, ReadCopyAndAttributes) {
  TempDir t;
  Pathname f = t / "f";
  writeFile(f, std::string(5000, 'q'));
  morvek::FileReadResult whole = morvek::readWholeFile(f, 5000);
  ASSERT_TRUE(whole.ok());
  EXPECT_EQ(whole.contents().size(), 5000u);
  morvek::FileReadResult big = morvek::readWholeFile(f, 4999);
  ASSERT_FALSE(big.ok());
  Str why;
  big.error().appendTo(why);
  EXPECT_EQ(why, "error=\"file size exceeds maximum_size=4.882KiB\", file=\"" + f + "\"");
  EXPECT_EQ(morvek::readWholeFile(t.path, 10).error().operation, "reading file");

  // Onto itself through a hard link: nothing is truncated.
  ASSERT_TRUE(f.linkTo((t / "hard").c_str()));
  EXPECT_TRUE(f.copyFile(t / "hard", true));
  uint64_t size = 0;
  EXPECT_TRUE(f.getSize(size) && size == 5000);

  Pathname ro = t / "ro";
  writeFile(ro, "old", 0444);
  EXPECT_TRUE(f.copyFile(ro, true));
  EXPECT_TRUE(ro.getSize(size) && size == 5000);

  morvek::Timeval when(1700000000, 123457);
  ASSERT_TRUE(f.setModificationTime(when));
  morvek::Timeval got;
  ASSERT_TRUE(f.getModificationTime(got));
  EXPECT_EQ(got, when);
  struct stat a, b;
  stat(f.c_str(), &a);
  ASSERT_TRUE(f.touch());
  stat(f.c_str(), &b);
  EXPECT_FALSE(Pathname::sameFileInfo(a, b));
  Str info;
  Pathname::appendStatInfo(info, a);
  std::string tail =
      ", mode=100644, size=5000, mtime=1700000000, owner=" + std::to_string(getuid()) +
      ", group=" + std::to_string(getgid()) + "]";
  EXPECT_TRUE(info.startsWith("[dev=") && info.endsWith(tail)) << info;

  mkfifo((t / "fifo").c_str(), 0600);
  EXPECT_EQ(Pathname(t / "fifo").kind(), Pathname::KIND_OTHER);
  EXPECT_EQ(Pathname(t.path).kind(), Pathname::KIND_DIRECTORY);
  EXPECT_TRUE(Pathname(t / "e").truncate(0) == false && errno == ENOENT);

  Pathname deep = t / "x/y/z/";
  EXPECT_TRUE(deep.makeDirectories(0755) && deep.makeDirectories(0755));
  EXPECT_FALSE(Pathname(t / "f/sub").makeDirectories(0755));  // a file where a parent should be
  EXPECT_EQ(errno, EEXIST);
}

TEST(FileOperationsErrors, BoundedListAndRendering) {
  FileOperationErrors errors;
  errors.ignored.push_back(ENOENT);
  for (int i = 0; i < 45; ++i) {
    FileOperationError e;
    e.src = "/s\"" + std::to_string(i);
    if (i % 2) e.dest = "/d\\" + std::to_string(i);
    e.error = i < 40 ? EACCES : ENOENT;
    e.operation = "copying source to destination";
    errors.report(std::move(e));
  }
  EXPECT_EQ(errors.count, 40u);
  EXPECT_EQ(errors.errors.size(), 32u);
  Str text = errors.toString();
  EXPECT_TRUE(text.startsWith(
      "40 errors occurred, description of first 32 errors: [{operation:\"copying source to "
      "destination\", error:\"Permission denied\", file:\"/s\\\"0\"}, {operation:"))
      << text;
  EXPECT_NE(text.find("src:\"/s\\\"1\" dest:\"/d\\\\1\"}"), Str::npos) << text;
}

TEST(FileOperationsFilesystem, DevicesMountsAndTypes) {
  TempDir t;
  ASSERT_TRUE(Pathname(t / "sub").makeDirectories(0755));
  morvek::StrVector messages{"stale"};
  EXPECT_TRUE(morvek::inSameFilesystemAs(t.path, t / "sub", &messages));
  EXPECT_FALSE(morvek::inSameFilesystemAs("/", "/proc", &messages));
  EXPECT_FALSE(morvek::inSameFilesystemAs("/nonexistent", "/", &messages));
  ASSERT_EQ(messages.size(), 1u);  // the stale one cleared
  EXPECT_TRUE(messages[0].endsWith(
      " Failed to initial stat(2) of ancestorDir='/nonexistent': No such file or directory"));

  morvek::FilesystemConstants c;
  ASSERT_TRUE(morvek::getFilesystemConstants("/proc/self/fd", c, &messages));
  Str shown;
  c.appendTo(shown);
  EXPECT_EQ(shown, "{capacity=0B fs_type=proc mount_point=/proc}");

  EXPECT_EQ(morvek::filesystemTypeName(0x1234), "unknown(0x1234)");
  uint64_t total = 0, free = 0;
  ASSERT_TRUE(morvek::getSpace(t.path.c_str(), &total, &free));
  EXPECT_GE(total, free);
  EXPECT_EQ(morvek::getFreeSpace("/nonexistent"), -1);
}

}  // namespace
