// Pathname, a Str that holds a POSIX file-system path and knows about '/'. Nothing is
// canonicalised on construction: the text stays as given until an operation changes it. The
// text operations never touch the file system (getCurrentDirectory and resolveTo excepted); the
// members that do are defined in FileOperations.cpp and documented there in outline.
//
//   Pathname p("/var/log");            p.appendComponent("app/x.log.gz") -> "/var/log/app/x.log.gz"
//   p.toLeaf() -> "x.log.gz"           p.ext(2) -> "log.gz"        p.stem() -> "x.log"
//   Pathname("a/./b/../c").normalize() -> "a/c", true; "../a" -> "a", false (it tried to climb)
#pragma once

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

#include <cstdint>

#include "basicutil/Str.h"
#include "basicutil/StrVector.h"
#include "basicutil/Timeval.h"

namespace morvek {

class FileOperationErrors;
struct RenameReport;

class Pathname : public Str {
 public:
  // Permission choices for files this library creates; FilePermissions maps them to bits.
  enum CreateMode : int { CREATE_NORMAL = 0, CREATE_PRIVATE = 1, CREATE_READONLY = 2 };
  // What kind() answers.
  enum Kind : int { KIND_ABSENT = 0, KIND_FILE = 1, KIND_DIRECTORY = 2, KIND_OTHER = 3 };

  // The answer of a filter for recursive operations.
  struct Decision {
    bool take;     // act on this entry
    bool descend;  // go on into it (directories)
  };
  class predicate {
   public:
    virtual ~predicate();
    virtual Decision operator()(const Pathname &path) const = 0;
  };
  class always_true : public predicate {
   public:
    Decision operator()(const Pathname &) const override { return {true, true}; }
  };
  static const always_true ALWAYS_TRUE;

  Pathname() = default;
  Pathname(const char *cstr) : Str(StrSegment(cstr)) {}
  Pathname(StrSegment text) : Str(text) {}
  Pathname(const std::string &s) : Str(s) {}
  Pathname(const Str &s) : Str(s) {}
  Pathname(Str &&s) : Str(std::move(s)) {}
  // base joined with component as appendComponent does, reserving the final length once.
  Pathname(StrSegment base, StrSegment component);
  Pathname(const char *base, const char *component)
      : Pathname(StrSegment(base), StrSegment(component)) {}
  Pathname(const Pathname &) = default;
  Pathname(Pathname &&) = default;
  Pathname &operator=(const Pathname &) = default;
  Pathname &operator=(Pathname &&) = default;
  using Str::operator=;

  // ---- Joining ------------------------------------------------------------------------------

  // Exactly one '/' between this path and component, whose leading slashes are dropped; an
  // empty component changes nothing, and an empty path becomes absolute ("" + "b" is "/b").
  // A component of only slashes leaves just the separator ("a" + "///" is "a/"). No temporary.
  void appendComponent(const char *data, size_t len);
  void appendComponent(StrSegment component) {
    appendComponent(component.data(), component.size());
  }
  void appendDirectoryEntry(const char *name) { appendComponent(StrSegment(name)); }
  // One '/' unless there is one already; "" becomes "/".
  void ensureTrailingSlash();
  // All trailing '/' go, but a path of only slashes keeps one.
  void stripTrailingSlashes();

  // ---- Parts --------------------------------------------------------------------------------

  // The last component, trailing slashes ignored: "a/b/" gives "b"; "/", "///" and "" give "/".
  Pathname toLeaf() const;
  // In place: the last component and every '/' before it go, after the trailing ones.
  // "a//b/" becomes "a", "/a" becomes "/", "a" becomes "", "/" stays "/".
  void toParent();
  Pathname parent() const;
  // The text after the nExts-th dot from the end of the leaf: ext(2) of "a.tar.gz" is "tar.gz",
  // ext(1) of ".profile" is "profile", of "dir.d/file" and of "a." is "".
  Str ext(unsigned nExts = 1) const;
  // The leaf less its last extension; a leading dot doesn't count: ".profile" stays, "a.b.c"
  // gives "a.b", "dir/" gives "".
  Str stem() const;
  // The whole path less nExts extensions, all or nothing: "a.b" less 1 is "a", less 2 "a.b".
  Pathname stripExt(unsigned nExts = 1) const;
  bool isAbsolute() const { return !empty() && front() == '/'; }

  // ---- Normalising, on the text alone --------------------------------------------------------

  // Each run of '/' becomes one.
  void collapseSlashes();
  Pathname collapsedSlashes() const;
  // Deletes every ".." component without resolving it, so the path can't climb:
  // "a/../x" becomes "a/x", "../x" "x", "/.." "/".
  void removeDotDots();
  // Resolves "." and ".." lexically, drops empty components, keeps a leading and a trailing
  // '/'. False when a ".." would have climbed above the start; it is dropped and the path is
  // rewritten all the same: "/../a" gives "/a" and false.
  bool normalize();
  // Turns a path pattern into regular-expression text: '*' matches within one component,
  // "..." across components, '.' is literal. False, leaving the text, when nothing was turned.
  bool toGlobRegex();

  // ---- Asking the file system --------------------------------------------------------------

  // getcwd with a 1024-byte buffer.
  static bool getCurrentDirectory(Pathname &out);
  // realpath; out is untouched on failure.
  bool resolveTo(Pathname &out) const;
  bool resolveInPlace();

  // ---- Command words -----------------------------------------------------------------------

  // Takes one shell-style word off input: blanks (TAB, LF, space) separate, '"' and '\''
  // quote, '\\' escapes outside single quotes. rest is what follows the word, its separator
  // included. False on an unterminated quote or escape, or when the word is empty.
  // "a\ b c" gives "a b" and rest " c".
  static bool takeWord(StrSegment input, Str &word, StrSegment &rest);
  // takeWord until it fails, appending each word.
  static void splitWords(StrSegment text, StrVector &words);
  // The words, quoted where needed so that splitWords reads them back, one space apart; a
  // space also separates them from text already in out.
  static void joinWords(const StrVector &words, Str &text);
  // '{', the joined words, '}'.
  static void appendWordList(Str &out, const StrVector &words);

  // ---- File-system operations (FileOperations.cpp) -----------------------------------------
  // A bool result is false when a system call refused, with errno as the system set it.

  bool getSize(uint64_t &size) const;
  bool isEmptyFile() const;
  // Blocks in use x 512.
  bool getDiskUsage(uint64_t &bytes) const;
  // Seconds, and the nanoseconds rounded to the nearest microsecond.
  bool getModificationTime(Timeval &time) const;
  bool touch() const;
  bool setModificationTime(const Timeval &time) const;
  // Size, modification time, mode, owner, group, links, device, inode, and for devices rdev.
  static bool sameFileInfo(const struct stat &a, const struct stat &b);
  // "[dev=.., ino=.., mode=<octal>, size=.., mtime=.., owner=.., group=..]".
  static void appendStatInfo(Str &out, const struct stat &st);
  Kind kind() const;
  bool exists() const;
  bool isReadOnly() const;
  // Adds the owner's write bit when not writable; the final answer of access(W_OK).
  bool makeWritable() const;
  // Clears all write bits when writable; true when it ended up not writable.
  bool makeReadOnly() const;
  bool chmod(mode_t mode) const;
  bool truncate(uint64_t size) const;
  bool rmdir() const;
  bool unlink() const;
  // A file, or an empty directory.
  bool remove() const;
  // Creates target as a symbolic link holding this path.
  bool symlinkTo(const char *target) const;
  // Creates target as a hard link to this file.
  bool linkTo(const char *target) const;
  bool renameTo(const char *target) const;
  DIR *openDirectory() const;
  // mkdir -p: true when the directory exists afterwards; a non-directory in the way is EEXIST.
  bool makeDirectories(mode_t mode) const;

  // Tree operations report through errors (which may be null; it is emptied first) and leave
  // errno at the first failure's value. Nothing is rolled back.
  bool removeTree(const predicate &pred = ALWAYS_TRUE, FileOperationErrors *errors = nullptr) const;
  // As removeTree, sparing this directory itself.
  bool removeContents(const predicate &pred = ALWAYS_TRUE,
                      FileOperationErrors *errors = nullptr) const;
  // removeTree with ENOENT not counted, at most 32 errors kept. A missing path is still false.
  bool removeTreeIgnoringMissing(const predicate &pred = ALWAYS_TRUE) const;
  bool removeContentsExcept(StrSegment name, FileOperationErrors *errors = nullptr) const;
  // Walks the tree and unlinks the files whose names end in suffix.
  bool removeBySuffix(StrSegment suffix, FileOperationErrors *errors = nullptr) const;
  bool removeWithRetries(unsigned attempts, unsigned delayMs) const;
  bool removeContentsWithRetries(int attempts, unsigned delayMs,
                                 FileOperationErrors *errors = nullptr) const;
  // Creates or truncates dest with this file's permission bits; true at once when dest already
  // is this file. fixAttributes makes dest writable first and sets its bits afterwards.
  bool copyFile(const Pathname &dest, bool fixAttributes = false) const;
  // The tree below this path onto dest, creating directories 0755 then giving them the
  // source's bits; keepTimes copies directory modification times too.
  bool copyTree(const Pathname &dest, FileOperationErrors *errors = nullptr, bool keepTimes = false,
                bool fixAttributes = false) const;
  // Hard links where it can, copies where it can't.
  bool hardLinkTree(const Pathname &dest, FileOperationErrors *errors = nullptr,
                    bool keepTimes = false) const;
  // Renames each file, copying where that fails (across devices). The source's directories,
  // and files that had to be copied, stay for the caller to remove.
  bool moveTree(const Pathname &dest, FileOperationErrors *errors = nullptr,
                bool keepTimes = false) const;
  // Only what lies in this directory, onto the existing directory dest.
  bool copyContents(const Pathname &dest, FileOperationErrors *errors = nullptr,
                    bool fixAttributes = false) const;
  // One regular file; across devices through a hidden temporary next to dest, the source stays.
  bool moveFile(const Pathname &dest) const;
  // rename, retried only on ENOMEM, ENFILE and EMFILE, sleeping delayMs between attempts.
  RenameReport renameWithRetries(const Pathname &dest, unsigned attempts, unsigned delayMs,
                                 bool crossDeviceAllowed) const;
};

}  // namespace morvek
