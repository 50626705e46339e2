#include "libzero/create-crash-dump.h"

#include <cpuid.h>
#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <execinfo.h>
#include <fcntl.h>
#include <link.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <sys/utsname.h>
#include <ucontext.h>
#include <unistd.h>

#include "libzero/fatal-assert.h"
#include "libzero/ospath-builder.h"

#ifndef MORVEK_BUILD_ID
#define MORVEK_BUILD_ID "000000000000"
#endif

namespace {

// ---- Process-wide state, written before any crash and only read by the handler ------------

int crashdumper_init_state = CRASHDUMPER_NOT_SET_UP_YET;
struct timespec crashdumper_start_time;
ospath_buf crashdumper_prefix;
ospath_buf crashdumper_stderr_file;
bool crashdumper_stderr_file_set = false;

// The ELF counterpart of a 28-byte image header.
struct crash_image_header {
  uint32_t magic;
  uint32_t cpu_type;
  uint32_t cpu_subtype;
  uint32_t file_type;
  uint32_t ncmds;
  uint32_t sizeofcmds;
  uint32_t flags;
};
static_assert(sizeof(crash_image_header) == 28);

struct crash_image {
  const char *name;
  crash_image_header header;
  uintptr_t slide;
};
crash_image *crash_images = nullptr;
unsigned crash_image_count = 0;
char crash_exe_path[OSPATH_MAX];

struct exec_region {
  uintptr_t start;
  uintptr_t end;
  exec_region *next;
};
exec_region *exec_map = nullptr;

crashlog_notation_perthread_state global_notations = {nullptr, nullptr};
crashlog_notation_perthread_state single_thread_notations = {nullptr, nullptr};

crash_log_thread_name_func thread_name_func = nullptr;
crash_log_thread_count_func thread_count_func = nullptr;
crash_log_extra_report_func extra_report_func = nullptr;
crash_log_printf_func printf_func = nullptr;
crash_backtrace_replacement_func backtrace_replacement = nullptr;

const int CRASH_SIGNALS[] = {SIGSEGV, SIGBUS, SIGILL, SIGABRT, SIGFPE};

}  // namespace

crashlog_notation_perthread_state_getter get_crashlog_notation_perthread_state_func = nullptr;

namespace {

// ---- Signal-safe output helpers ---------------------------------------------------------------

void w_str(crash_log_writer *w, const char *s) {
  if (s != nullptr) crashlog_write(w, s, strlen(s));
}

void w_unsigned(crash_log_writer *w, unsigned long long v, int width = 0, char fill = ' ') {
  char buf[24];
  size_t i = sizeof buf;
  do {
    buf[--i] = static_cast<char>('0' + v % 10);
    v /= 10;
  } while (v != 0);
  while (width > 0 && sizeof buf - i < static_cast<size_t>(width) && i > 0) buf[--i] = fill;
  crashlog_write(w, buf + i, sizeof buf - i);
}

void w_signed(crash_log_writer *w, long long v, int width = 0, char fill = ' ') {
  if (v < 0) {
    crashlog_write(w, "-", 1);
    w_unsigned(w, 0ull - static_cast<unsigned long long>(v), width > 0 ? width - 1 : 0, fill);
  } else {
    w_unsigned(w, static_cast<unsigned long long>(v), width, fill);
  }
}

// Upper-case hex, zero-filled to width.
void w_hex(crash_log_writer *w, unsigned long long v, int width) {
  static const char digits[] = "0123456789ABCDEF";
  char buf[20];
  size_t i = sizeof buf;
  do {
    buf[--i] = digits[v & 15];
    v >>= 4;
  } while (v != 0);
  while (sizeof buf - i < static_cast<size_t>(width) && i > 0) buf[--i] = '0';
  crashlog_write(w, buf + i, sizeof buf - i);
}

// "[0x%016llX]"
void w_address(crash_log_writer *w, unsigned long long v) {
  w_str(w, "[0x");
  w_hex(w, v, 16);
  w_str(w, "]");
}

struct timespec monotonic_now() {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return ts;
}

const char *signal_text(int sig) {
  const char *s = sigdescr_np(sig);  // unlike strsignal: no translation, no buffer
  return s != nullptr ? s : "Unknown signal";
}

}  // namespace

// ---- Writers ------------------------------------------------------------------------------

extern "C" void crash_log_write_handle_init(crash_log_write_handle *z, int fd) {
  z->whand.do_write = &default_crash_log_write;
  z->fd = fd;
  z->written = 0;
  z->overflow_bytes = 0;
  z->overflow_time = {0, 0};
}

extern "C" void default_crash_log_write(crash_log_writer *w, const char *bytes, size_t length) {
  static const char over_single[] =
      "Crash log write attempted over the limit of (50kB), skipping.\n";
  static const char over_total[] =
      "Crash log has overflowed the allowed limit (512kB), truncated.\n";
  static const char looping[] =
      "Crash log writes still attempted after 3 seconds, maybe something is looping?\n";
  static_assert(sizeof over_single - 1 == 62 && sizeof over_total - 1 == 63);

  crash_log_write_handle *z = reinterpret_cast<crash_log_write_handle *>(w);
  MV_ASSERT(z->whand.do_write == &default_crash_log_write);
  if (length > CRASH_LOG_MAX_SINGLE_WRITE) {
    bytes = over_single;
    length = sizeof over_single - 1;
  }
  if (z->overflow_bytes != 0) {
    uint64_t before = z->overflow_bytes;
    z->overflow_bytes += length;
    // The clock is read only at each 2 MiB of refused output, to keep a looping writer cheap.
    if ((before >> 21) == (z->overflow_bytes >> 21)) return;
    struct timespec now = monotonic_now();
    int64_t elapsed_ns = (now.tv_sec - z->overflow_time.tv_sec) * 1000000000LL +
                         (now.tv_nsec - z->overflow_time.tv_nsec);
    if (elapsed_ns <= 3000000000LL) return;
    ssize_t ignored = write(z->fd, looping, sizeof looping - 1);
    (void)ignored;
    _exit(CRASH_LOG_LOOPING_EXIT_STATUS);
  }
  z->written += length;
  if (z->written >= CRASH_LOG_MAX_TOTAL) {
    z->written -= length;
    z->overflow_bytes = sizeof over_total - 1;
    z->overflow_time = monotonic_now();
    bytes = over_total;
    length = sizeof over_total - 1;
  }
  ssize_t ignored = write(z->fd, bytes, length);
  (void)ignored;
}

extern "C" void crashlog_write_cstr(crash_log_writer *w, const char *cstr) { w_str(w, cstr); }

extern "C" void crashlog_vprintf(crash_log_writer *w, const char *format, va_list ap) {
  if (printf_func != nullptr) {
    printf_func(w, format, ap);
    return;
  }
  char buf[500];
  int n = vsnprintf(buf, sizeof buf, format, ap);
  if (n < 0) return;
  if (static_cast<size_t>(n) >= sizeof buf) {
    n = sizeof buf - 1;
    memcpy(buf + n - 3, "...", 3);
  }
  crashlog_write(w, buf, static_cast<size_t>(n));
}

extern "C" void crashlog_printf(crash_log_writer *w, const char *format, ...) {
  va_list ap;
  va_start(ap, format);
  crashlog_vprintf(w, format, ap);
  va_end(ap);
}

// ---- Notations ------------------------------------------------------------------------------

namespace {

// Links e behind the list's last entry. The handler may walk the list at any moment, so the
// entry is complete before the release store publishes it.
void notation_link(crashlog_notation_perthread_state *cnpsp, crashlog_notation_entry *e) {
  if (cnpsp->root == nullptr) {
    MV_ASSERT(cnpsp->last == nullptr);
  } else {
    MV_ASSERT(cnpsp->last != nullptr);
  }
  e->next = nullptr;
  e->prev = cnpsp->last;
  if (cnpsp->root == nullptr) {
    __atomic_store_n(&cnpsp->root, e, __ATOMIC_RELEASE);
  } else {
    __atomic_store_n(&cnpsp->last->next, e, __ATOMIC_RELEASE);
  }
  cnpsp->last = e;
}

crashlog_notation_perthread_state *current_perthread_state() {
  if (get_crashlog_notation_perthread_state_func == nullptr) return nullptr;
  return get_crashlog_notation_perthread_state_func();
}

crashlog_notation_entry *new_string_entry(const char *text, size_t length) {
  auto *se =
      static_cast<crashlog_notation_string_entry *>(malloc(sizeof(crashlog_notation_string_entry)));
  if (se == nullptr) return nullptr;
  se->e.ent.render = &crashlog_notation_write_string;
  se->e.ent.destruct = &free_crashlog_notation_destruct_func;
  se->e.next = nullptr;
  se->e.prev = nullptr;
  se->text = text;
  se->length = length;
  return &se->e;
}

}  // namespace

static_assert(sizeof(crashlog_notation_string_entry) == 48);

extern "C" void crashlog_notation_attach(crashlog_notation_entry *entry) {
  notation_link(&global_notations, entry);
}

extern "C" int crashlog_notation_attach_string(const char *text, size_t length) {
  crashlog_notation_entry *e = new_string_entry(text, length);
  if (e == nullptr) return -1;
  crashlog_notation_attach(e);
  return 0;
}

extern "C" int crashlog_notation_perthread_push(crashlog_notation_entry *entry) {
  crashlog_notation_perthread_state *cnpsp = current_perthread_state();
  if (cnpsp == nullptr) return -1;
  notation_link(cnpsp, entry);
  return 0;
}

extern "C" int crashlog_notation_perthread_push_string(const char *text, size_t length) {
  crashlog_notation_perthread_state *cnpsp = current_perthread_state();
  if (cnpsp == nullptr) return -1;
  crashlog_notation_entry *e = new_string_entry(text, length);
  if (e == nullptr) return -1;
  notation_link(cnpsp, e);
  return 0;
}

extern "C" void crashlog_notation_perthread_pop(void) {
  MV_ASSERT(get_crashlog_notation_perthread_state_func != nullptr);
  crashlog_notation_perthread_state *cnpsp = get_crashlog_notation_perthread_state_func();
  MV_ASSERT(cnpsp != nullptr);
  MV_ASSERT(cnpsp->root != nullptr);
  crashlog_notation_entry *e = cnpsp->last;
  MV_ASSERT(e != nullptr);
  crashlog_notation_entry *prev = e->prev;
  if (prev == nullptr) {
    __atomic_store_n(&cnpsp->root, nullptr, __ATOMIC_RELEASE);
  } else {
    __atomic_store_n(&prev->next, nullptr, __ATOMIC_RELEASE);
  }
  cnpsp->last = prev;
  e->ent.destruct(e);
}

extern "C" void crashlog_notation_write_string(crashlog_notation_entry *e, crash_log_writer *w) {
  MV_ASSERT(e->ent.render == &crashlog_notation_write_string);
  MV_ASSERT(e->ent.destruct == &free_crashlog_notation_destruct_func);
  auto *se = reinterpret_cast<crashlog_notation_string_entry *>(e);
  crashlog_write(w, se->text, se->length);
}

extern "C" void free_crashlog_notation_destruct_func(crashlog_notation_entry *e) { free(e); }

extern "C" crashlog_notation_perthread_state *crashlog_notation_single_thread_state(void) {
  return &single_thread_notations;
}

extern "C" crashlog_notation_perthread_state *crashlog_notation_global_list(void) {
  return &global_notations;
}

// ---- Hooks ----------------------------------------------------------------------------------

extern "C" void crash_log_set_notation_perthread_state_func(
    crashlog_notation_perthread_state_getter f) {
  get_crashlog_notation_perthread_state_func = f;
}
extern "C" void crash_log_set_thread_name_func(crash_log_thread_name_func f) {
  thread_name_func = f;
}
extern "C" void crash_log_set_thread_count_func(crash_log_thread_count_func f) {
  thread_count_func = f;
}
extern "C" void crash_log_set_extra_report_func(crash_log_extra_report_func f) {
  extra_report_func = f;
}
extern "C" void crash_log_set_printf_func(crash_log_printf_func f) { printf_func = f; }

extern "C" void crash_log_set_stderr_file(const char *name) {
  if (ospath_copy(&crashdumper_stderr_file, name) != 0) {
    fprintf(stderr, "Stderr file too long to use: \"%s\"\n", name);
    return;
  }
  crashdumper_stderr_file_set = true;
}

extern "C" int crash_log_creator_is_set_up(void) {
  return crashdumper_init_state != CRASHDUMPER_NOT_SET_UP_YET;
}

// ---- Backtraces -----------------------------------------------------------------------------

namespace {

__attribute__((tls_model("initial-exec"))) thread_local int backtrace_depth = 0;
bool backtrace_not_primed = true;

// Keeps a call from turning into a jump, so that the caller's frame stays on the stack and the
// frame counts below hold.
#define KEEP_FRAME(expr)                         \
  do {                                           \
    int r_ = (expr);                             \
    __asm__ volatile("" : : "r"(r_) : "memory"); \
    return r_;                                   \
  } while (0)

__attribute__((noinline)) int collect_frames(void **addrs, size_t *sizes, int max, int skip,
                                             int *left_over) {
  if (backtrace_depth != 0 || backtrace_not_primed) return 0;
  ++backtrace_depth;
  void *frames[64];
  int got = backtrace(frames, 64);
  // Skip this function and the form that called it. The form's frame is found by its return
  // address, since an interposed backtrace (a sanitizer's) may add frames of its own.
  void *into_form = __builtin_return_address(0);
  int base = 2;
  for (int i = 0; i < got && i < 4; ++i) {
    if (frames[i] == into_form) {
      base = i + 1;
      break;
    }
  }
  skip += base;
  int avail = got > skip ? got - skip : 0;
  int n = avail < max ? avail : (max < 0 ? 0 : max);
  for (int i = 0; i < n; ++i) {
    addrs[i] = frames[skip + i];
    if (sizes != nullptr) sizes[i] = 0;
  }
  if (left_over != nullptr) *left_over = avail - n;
  --backtrace_depth;
  return n;
}

struct BacktracePrimer {
  BacktracePrimer() {
    void *one[1];
    backtrace(one, 1);
    backtrace_not_primed = false;
  }
} backtrace_primer;

}  // namespace

extern "C" __attribute__((noinline)) int crash_backtrace(void **addrs, int max, int skip) {
  if (backtrace_replacement != nullptr)
    return backtrace_replacement(addrs, nullptr, max, skip, nullptr, nullptr);
  KEEP_FRAME(collect_frames(addrs, nullptr, max, skip, nullptr));
}

extern "C" __attribute__((noinline)) int crash_backtrace_with_sizes(void **addrs, size_t *sizes,
                                                                    int max, int skip) {
  if (backtrace_replacement != nullptr)
    return backtrace_replacement(addrs, sizes, max, skip, nullptr, nullptr);
  KEEP_FRAME(collect_frames(addrs, sizes, max, skip, nullptr));
}

extern "C" __attribute__((noinline)) int crash_backtrace_from_context(void **addrs, int max,
                                                                      int skip,
                                                                      const void *ucontext,
                                                                      int *left_over) {
  if (backtrace_replacement != nullptr)
    return backtrace_replacement(addrs, nullptr, max, skip, ucontext, left_over);
  KEEP_FRAME(collect_frames(addrs, nullptr, max, skip, left_over));
}

extern "C" __attribute__((noinline)) int crash_backtrace_with_sizes_from_context(
    void **addrs, size_t *sizes, int max, int skip, const void *ucontext, int *left_over) {
  if (backtrace_replacement != nullptr)
    return backtrace_replacement(addrs, sizes, max, skip, ucontext, left_over);
  KEEP_FRAME(collect_frames(addrs, sizes, max, skip, left_over));
}

// The dispatcher's own frame counts as one of the caller's skipped frames.
extern "C" __attribute__((noinline)) int crash_backtrace_any(void **addrs, size_t *sizes, int max,
                                                             int skip, const void *ucontext,
                                                             int *left_over) {
  if (ucontext == nullptr && left_over == nullptr) {
    if (sizes == nullptr) KEEP_FRAME(crash_backtrace(addrs, max, skip));
    KEEP_FRAME(crash_backtrace_with_sizes(addrs, sizes, max, skip));
  }
  if (sizes == nullptr)
    KEEP_FRAME(crash_backtrace_from_context(addrs, max, skip, ucontext, left_over));
  KEEP_FRAME(crash_backtrace_with_sizes_from_context(addrs, sizes, max, skip, ucontext, left_over));
}

extern "C" void crash_backtrace_set_replacement(crash_backtrace_replacement_func f) {
  backtrace_replacement = f;
}

// ---- Symbols --------------------------------------------------------------------------------

extern "C" void backtrace_symbol_information_init(backtrace_symbol_information *info,
                                                  const void *address) {
  MV_ASSERT(crashdumper_init_state != CRASHDUMPER_NOT_SET_UP_YET);
  memset(info, 0, sizeof *info);
  Dl_info dl;
  if (dladdr(address, &dl) == 0) return;
  info->symbol_name = dl.dli_sname;
  if (dl.dli_sname != nullptr) {
    info->symbol_offset = static_cast<unsigned long>(reinterpret_cast<uintptr_t>(address) -
                                                     reinterpret_cast<uintptr_t>(dl.dli_saddr));
  }
  if (const char *path = dl.dli_fname) {
    const char *start = path;
    for (const char *p = path; *p != '\0'; ++p) {
      if (*p == '/' || *p == '[') start = p + 1;
    }
    const char *limit = path + 100;
    if (start >= limit) limit = start + 1;
    const char *end = start;
    while (end < limit && *end != '\0' && *end != '\t' && *end != ' ' && *end != ']') ++end;
    info->image_name = start;
    info->image_name_length = static_cast<size_t>(end - start);
  }
  uintptr_t a = reinterpret_cast<uintptr_t>(address);
  for (const exec_region *r = exec_map; r != nullptr; r = r->next) {
    if (a >= r->start && a < r->end) {
      info->text_offset = a - r->start;
      break;
    }
  }
}

extern "C" void backtrace_symbol_information_print(crash_log_writer *w,
                                                   const backtrace_symbol_information *info) {
  if (info->symbol_name == nullptr) {
    w_str(w, "?");
  } else {
    w_str(w, info->symbol_name);
    w_str(w, " + ");
    w_unsigned(w, info->symbol_offset);
    if (info->symbol_size != 0) {
      w_str(w, "/");
      w_unsigned(w, info->symbol_size);
    }
  }
  if (info->image_name != nullptr) {
    w_str(w, " (");
    crashlog_write(w, info->image_name, info->image_name_length);
    if (info->text_offset != 0) {
      w_str(w, " + 0x");
      w_hex(w, info->text_offset, 0);
    }
    w_str(w, ")");
  }
  if (info->source_file != nullptr) {
    w_str(w, " [");
    w_str(w, info->source_file);
    if (info->source_line != 0) {
      w_str(w, ":");
      w_unsigned(w, info->source_line);
    }
    w_str(w, "]");
  }
}

namespace {

void write_symbol(crash_log_writer *w, const void *address) {
  backtrace_symbol_information info;
  backtrace_symbol_information_init(&info, address);
  backtrace_symbol_information_print(w, &info);
}

// ---- Tables collected at installation ---------------------------------------------------------

int count_image(struct dl_phdr_info *, size_t, void *data) {
  ++*static_cast<unsigned *>(data);
  return 0;
}

int record_image(struct dl_phdr_info *dlpi, size_t, void *) {
  if (crash_image_count == 0) return 1;  // the table is full
  // Filled from the end so that the count only ever grows to what was allocated.
  crash_image &img = crash_images[crash_image_count - 1];
  --crash_image_count;
  img.name = dlpi->dlpi_name;
  if (img.name == nullptr || img.name[0] == '\0') img.name = crash_exe_path;
  img.slide = dlpi->dlpi_addr;
  for (ElfW(Half) i = 0; i < dlpi->dlpi_phnum; ++i) {
    const ElfW(Phdr) &ph = dlpi->dlpi_phdr[i];
    if (ph.p_type != PT_LOAD) continue;
    // The ELF header is mapped at the start of the first loadable segment.
    if (ph.p_offset == 0) {
      const auto *eh = reinterpret_cast<const ElfW(Ehdr) *>(dlpi->dlpi_addr + ph.p_vaddr);
      if (memcmp(eh->e_ident, ELFMAG, SELFMAG) == 0) {
        memcpy(&img.header.magic, eh->e_ident, 4);
        img.header.cpu_type = eh->e_machine;
        img.header.cpu_subtype = eh->e_ident[EI_CLASS];
        img.header.file_type = eh->e_type;
        img.header.ncmds = eh->e_phnum;
        img.header.sizeofcmds = static_cast<uint32_t>(eh->e_phnum) * eh->e_phentsize;
        img.header.flags = eh->e_flags;
      }
    }
    break;
  }
  return 0;
}

void collect_images() {
  ssize_t n = readlink("/proc/self/exe", crash_exe_path, sizeof crash_exe_path - 1);
  crash_exe_path[n > 0 ? n : 0] = '\0';
  unsigned count = 0;
  dl_iterate_phdr(&count_image, &count);
  if (count == 0) return;
  crash_images = static_cast<crash_image *>(calloc(count, sizeof(crash_image)));
  if (crash_images == nullptr) return;
  crash_image_count = count;
  dl_iterate_phdr(&record_image, nullptr);
  // Images that went away between the two walks leave empty slots at the front.
  unsigned unused = crash_image_count;
  crash_images += unused;
  crash_image_count = count - unused;
  // The walk filled the table back to front; put it in load order.
  for (unsigned i = 0, j = crash_image_count; i + 1 < j; ++i, --j) {
    crash_image t = crash_images[i];
    crash_images[i] = crash_images[j - 1];
    crash_images[j - 1] = t;
  }
}

void collect_exec_map() {
  int fd = open("/proc/self/maps", O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  char buf[4096];
  char line[512];
  size_t line_len = 0;
  bool failed = false;
  auto handle_line = [&](const char *l, size_t len) {
    // "start-end perms ..."
    uintptr_t start = 0, end = 0;
    size_t i = 0;
    auto hex = [&](uintptr_t &v) {
      for (; i < len; ++i) {
        char c = l[i];
        int d = c >= '0' && c <= '9' ? c - '0' : c >= 'a' && c <= 'f' ? c - 'a' + 10 : -1;
        if (d < 0) break;
        v = v * 16 + static_cast<uintptr_t>(d);
      }
    };
    hex(start);
    if (i >= len || l[i] != '-') return;
    ++i;
    hex(end);
    if (i + 4 > len || l[i + 3] != 'x') return;
    auto *node = static_cast<exec_region *>(malloc(sizeof(exec_region)));
    if (node == nullptr) {
      fputs("map_init(): malloc() failed\n", stderr);
      failed = true;
      return;
    }
    node->start = start;
    node->end = end;
    node->next = exec_map;
    exec_map = node;
  };
  for (;;) {
    ssize_t n = read(fd, buf, sizeof buf);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    for (ssize_t k = 0; k < n && !failed; ++k) {
      if (buf[k] == '\n') {
        handle_line(line, line_len);
        line_len = 0;
      } else if (line_len < sizeof line) {
        line[line_len++] = buf[k];
      }
    }
    if (failed) break;
  }
  close(fd);
}

void crash_signal_handler(int sig, siginfo_t *info, void *ucv);

// ---- The report -------------------------------------------------------------------------------

void write_cause(crash_log_writer *w, int sig, const siginfo_t *info) {
  static const char *const ill_texts[] = {"Illegal opcode",
                                          "Illegal trap",
                                          "Privileged opcode",
                                          "Illegal operand for opcode",
                                          "Illegal addressing mode for opcode",
                                          "Privileged register access",
                                          "Coprocessor error",
                                          "Internal stack error"};
  static const int ill_codes[] = {ILL_ILLOPC, ILL_ILLTRP, ILL_PRVOPC, ILL_ILLOPN,
                                  ILL_ILLADR, ILL_PRVREG, ILL_COPROC, ILL_BADSTK};
  static const char *const fpe_texts[] = {
      "Floating point division by zero",  "Floating point overflow",
      "Floating point underflow",         "Inexact floating point result",
      "Invalid floating point operation", "Floating point subscript out of range",
      "Integer division by zero",         "Integer overflow"};
  static const int fpe_codes[] = {FPE_FLTDIV, FPE_FLTOVF, FPE_FLTUND, FPE_FLTRES,
                                  FPE_FLTINV, FPE_FLTSUB, FPE_INTDIV, FPE_INTOVF};
  const int code = info->si_code;
  const char *text = nullptr;
  if (sig == SIGILL) {
    for (size_t i = 0; i < 8; ++i) {
      if (code == ill_codes[i]) text = ill_texts[i];
    }
  } else if (sig == SIGFPE) {
    for (size_t i = 0; i < 8; ++i) {
      if (code == fpe_codes[i]) text = fpe_texts[i];
    }
  } else if (sig == SIGBUS) {
    if (code == BUS_ADRALN) text = "Unaligned memory access";
    if (code == BUS_ADRERR) text = "Non-existent accessed physical address";
    if (code == BUS_OBJERR)
      text = info->si_errno == ENOMEM ? "Out of swap space" : "Hardware error";
  } else if (sig == SIGSEGV) {
    if (code == SEGV_MAPERR) text = "No memory mapped";
    if (code == SEGV_ACCERR) text = "Memory access denied";
  }
  const bool sent = code == SI_USER || code == SI_QUEUE || code == SI_TKILL;
  if (text != nullptr) {
    w_str(w, "   ");
    w_str(w, text);
    w_str(w, " at address ");
    w_address(w, reinterpret_cast<uintptr_t>(info->si_addr));
    w_str(w, ".\n");
  }
  if (sent) {
    w_str(w, "   Signal sent by PID ");
    w_signed(w, info->si_pid);
    w_str(w, " running under UID ");
    w_signed(w, info->si_uid);
    w_str(w, ".\n");
  } else if (text == nullptr) {
    w_str(w, "   Unknown signal origin (si_code=");
    w_signed(w, code);
    if (sig == SIGILL || sig == SIGFPE || sig == SIGBUS || sig == SIGSEGV) {
      w_str(w, ", si_addr=");
      w_address(w, reinterpret_cast<uintptr_t>(info->si_addr));
    }
    if (info->si_errno != 0) {
      w_str(w, ", si_errno=");
      w_signed(w, info->si_errno);
    }
    w_str(w, ").\n");
  }
}

void write_registers(crash_log_writer *w, const ucontext_t *uc) {
  const greg_t *g = uc->uc_mcontext.gregs;
  w_str(w, " Registers:\n    RIP:  ");
  w_address(w, static_cast<unsigned long long>(g[REG_RIP]));
  w_str(w, " ");
  write_symbol(w, reinterpret_cast<const void *>(g[REG_RIP]));
  w_str(w, "\n");
  static const struct {
    const char *name;
    int reg;
  } regs[] = {{"RDI", REG_RDI},    {"RSI", REG_RSI},       {"RBP", REG_RBP}, {"RSP", REG_RSP},
              {"RAX", REG_RAX},    {"RBX", REG_RBX},       {"RCX", REG_RCX}, {"RDX", REG_RDX},
              {"R8", REG_R8},      {"R9", REG_R9},         {"R10", REG_R10}, {"R11", REG_R11},
              {"R12", REG_R12},    {"R13", REG_R13},       {"R14", REG_R14}, {"R15", REG_R15},
              {"RFLAGS", REG_EFL}, {"TRAPNO", REG_TRAPNO}, {"ERR", REG_ERR}};
  auto line = [w](const char *name, unsigned long long v) {
    w_str(w, "    ");
    w_str(w, name);
    w_str(w, ":  ");
    w_address(w, v);
    w_str(w, "\n");
  };
  for (const auto &r : regs) line(r.name, static_cast<unsigned long long>(g[r.reg]));
  // CS, GS and FS share one register slot, 16 bits each, then padding.
  unsigned long long csgsfs = static_cast<unsigned long long>(g[REG_CSGSFS]);
  line("CS", csgsfs & 0xffff);
  line("GS", (csgsfs >> 16) & 0xffff);
  line("FS", (csgsfs >> 32) & 0xffff);
}

void write_cpuid(crash_log_writer *w) {
  w_str(w, "\nx86 CPUID registers:\n");
  auto leaf = [w](unsigned l) {
    unsigned a = 0, b = 0, c = 0, d = 0;
    __cpuid_count(l, 0, a, b, c, d);
    w_str(w, "  ");
    // "%8X": blank-filled
    char buf[8];
    size_t i = sizeof buf;
    unsigned v = l;
    do {
      buf[--i] = "0123456789ABCDEF"[v & 15];
      v >>= 4;
    } while (v != 0);
    while (i > 0) buf[--i] = ' ';
    crashlog_write(w, buf, sizeof buf);
    w_str(w, ": ");
    w_hex(w, a, 8);
    w_str(w, " ");
    w_hex(w, b, 8);
    w_str(w, " ");
    w_hex(w, c, 8);
    w_str(w, " ");
    w_hex(w, d, 8);
    w_str(w, "\n");
    return a;
  };
  unsigned max_basic = leaf(0) & 0xffff;
  for (unsigned l = 1; l <= max_basic; ++l) leaf(l);
  unsigned max_ext = leaf(0x80000000u);
  if (max_ext >= 0x80000001u) {
    for (unsigned l = 0x80000001u; l <= max_ext && l >= 0x80000001u; ++l) leaf(l);
  }
}

// Copies a file's last lines, made printable, as a block; shared by the stderr tail.
void write_filtered_lines(crash_log_writer *w, int fd) {
  bool line_open = false;
  char c;
  for (;;) {
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    if (c == '\0' || c == '\r') continue;
    if (c == '\n') {
      if (line_open) crashlog_write(w, "\n", 1);
      line_open = false;
      continue;
    }
    if (c == '\t') c = ' ';
    if (static_cast<unsigned char>(c) < 32 || static_cast<unsigned char>(c) > 126) c = '?';
    if (!line_open) crashlog_write(w, "    ", 4);
    line_open = true;
    crashlog_write(w, &c, 1);
  }
  if (line_open) crashlog_write(w, "\n", 1);
  crashlog_write(w, "\n", 1);
}

// Positions fd at the start of the first whole line among the last `limit` bytes.
bool seek_to_tail(int fd, off_t size, off_t limit) {
  if (size <= limit) return true;
  if (lseek(fd, size - limit, SEEK_SET) < 0) return false;
  char c;
  for (;;) {
    ssize_t n = read(fd, &c, 1);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    if (c == '\n') return true;
  }
}

void write_stderr_tail(crash_log_writer *w) {
  int fd = open(crashdumper_stderr_file, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return;
  struct stat st;
  if (fstat(fd, &st) == 0 && st.st_size != 0 && seek_to_tail(fd, st.st_size, 800)) {
    w_str(w,
          " Last few lines of stderr (may contain info on assertion failure, but also could be "
          "old):\n");
    write_filtered_lines(w, fd);
  }
  close(fd);
}

uint64_t output_count(const crash_log_write_handle *z) { return z->written + z->overflow_bytes; }

void write_notations(crash_log_write_handle *z, crashlog_notation_entry *root) {
  unsigned count = 0;
  for (crashlog_notation_entry *e = root; e != nullptr;
       e = __atomic_load_n(&e->next, __ATOMIC_ACQUIRE)) {
    if (count++ == 1024) {
      w_str(&z->whand,
            "Max crashlog notation count exceeded (1024), probably linked list of notations "
            "corrupted. breaking out.\n");
      break;
    }
    uint64_t before = output_count(z);
    e->ent.render(e, &z->whand);
    if (output_count(z) != before) crashlog_write(&z->whand, "\n", 1);
  }
}

// Writes the report; false when the handler is to end at once, without the debugger's wait.
__attribute__((noinline)) bool write_crash_report(int sig, siginfo_t *info, void *ucv,
                                                  int saved_errno) {
  time_t now = time(nullptr);
  struct tm tm;
  localtime_r(&now, &tm);

  crash_log_write_handle z;
  crash_log_write_handle_init(&z, 2);
  crash_log_writer *w = &z.whand;
  if (crashdumper_init_state == CRASHDUMPER_TO_DIRECTORY) {
    char name[128];
    strftime(name, sizeof name, "crash-%Y-%m-%d-%H:%M:%S.log", &tm);
    ospath_builder path;
    if (ospath_join(&path, crashdumper_prefix, name) != 0) return false;
    const int flags = O_WRONLY | O_CREAT | O_TRUNC | O_EXCL;
    int fd = open(path.buf, flags, 0600);
    bool out_of_fds = false;
    if (fd < 0 && (errno == ENFILE || errno == EMFILE)) {
      close(0);
      fd = open(path.buf, flags, 0600);
      out_of_fds = fd >= 0;
    }
    if (fd < 0) return true;
    z.fd = fd;
    if (out_of_fds) w_str(w, "(Out of file descriptors!)\n");
  }

  {
    w_str(w, "[build " MORVEK_BUILD_ID "] ");
    w_signed(w, tm.tm_year + 1900, 4, '0');
    w_str(w, "-");
    w_signed(w, tm.tm_mon + 1, 2, '0');
    w_str(w, "-");
    w_signed(w, tm.tm_mday, 2, '0');
    w_str(w, " ");
    w_signed(w, tm.tm_hour, 2, '0');
    w_str(w, ":");
    w_signed(w, tm.tm_min, 2, '0');
    w_str(w, ":");
    w_signed(w, tm.tm_sec, 2, '0');
    w_str(w, "\n");

    w_str(w, "Received fatal signal ");
    w_signed(w, sig);
    w_str(w, " (");
    w_str(w, signal_text(sig));
    w_str(w, ") on PID ");
    w_signed(w, getpid());
    w_str(w, ".\n");

    if (info != nullptr) {
      if (info->si_signo != sig) {
        w_str(w, "   [siginfo has different signal number: ");
        w_signed(w, info->si_signo);
        w_str(w, "!]\n");
      }
      w_str(w, " Cause:\n");
      write_cause(w, sig, info);
    }
    if (thread_name_func != nullptr) {
      w_str(w, " Crashing thread: ");
      w_str(w, thread_name_func());
      w_str(w, "\n");
    }
    if (ucv != nullptr) write_registers(w, static_cast<const ucontext_t *>(ucv));

    w_str(w,
          "\n OS: Linux\n Arch: x86-64\n\n Backtrace (NOTE: symbols may be wrong -- dladdr() sees "
          "only exported symbols):\n");
    void *frames[1024];
    // Skips the dispatcher, this function, the handler and the kernel's signal trampoline.
    int nframes = crash_backtrace_any(frames, nullptr, 1024, 4, nullptr, nullptr);
    for (int i = 0; i < nframes; ++i) {
      w_str(w, "  ");
      w_address(w, reinterpret_cast<uintptr_t>(frames[i]));
      w_str(w, " ");
      write_symbol(w, frames[i]);
      w_str(w, "\n");
    }

    if (crash_image_count != 0) {
      w_unsigned(w, crash_image_count);
      w_str(w, " ELF images:\n");
      for (unsigned i = 0; i < crash_image_count; ++i) {
        const crash_image &img = crash_images[i];
        w_str(w, "  ");
        w_unsigned(w, i, 2, '0');
        w_str(w, " ");
        w_address(w, img.slide);
        w_str(w, " ");
        w_unsigned(w, img.header.file_type, 3, ' ');
        w_str(w, " ");
        w_hex(w, img.header.flags, 8);
        w_str(w, " ");
        w_str(w, img.name);
        w_str(w, "\n");
      }
      w_str(w, "\n");
    }

    struct utsname un;
    if (uname(&un) == 0) {
      const char *parts[] = {un.sysname, un.nodename, un.release, un.version, un.machine};
      for (size_t i = 0; i < 5; ++i) {
        w_str(w, i == 0 ? " " : " / ");
        w_str(w, parts[i]);
      }
      w_str(w, "\n");
    }

    int reported = extra_report_func != nullptr ? extra_report_func(w) : 0;
    if (sig == SIGABRT && reported == 0 && crashdumper_stderr_file_set) write_stderr_tail(w);

    w_str(w, "Last errno: ");
    w_signed(w, saved_errno);
    w_str(w, "\n");
    if (thread_count_func != nullptr) {
      w_str(w, "Threads running: ");
      w_unsigned(w, thread_count_func());
      w_str(w, "\n");
    }
    struct timespec t = monotonic_now();
    int64_t run_us = (t.tv_sec - crashdumper_start_time.tv_sec) * 1000000LL +
                     (t.tv_nsec - crashdumper_start_time.tv_nsec) / 1000;
    if (run_us < 0) run_us = 0;
    w_str(w, "Runtime: ");
    w_unsigned(w, static_cast<unsigned long long>(run_us / 1000000));
    w_str(w, ".");
    w_unsigned(w, static_cast<unsigned long long>(run_us % 1000000), 6, '0');
    w_str(w, "s\n");

    write_notations(&z, __atomic_load_n(&global_notations.root, __ATOMIC_ACQUIRE));
    if (crashlog_notation_perthread_state *cnpsp = current_perthread_state()) {
      write_notations(&z, __atomic_load_n(&cnpsp->root, __ATOMIC_ACQUIRE));
    }
    write_cpuid(w);
    w_str(w, "terminating...\n");
    if (crashdumper_init_state != CRASHDUMPER_TO_STDERR) close(z.fd);
  }
  return true;
}

void crash_signal_handler(int sig, siginfo_t *info, void *ucv) {
  const int saved_errno = errno;
  for (int s : CRASH_SIGNALS) signal(s, SIG_DFL);
  if (write_crash_report(sig, info, ucv, saved_errno)) {
    const char *wait = getenv("MORVEK_WAIT_ON_CRASH");
    if (wait != nullptr && strcmp(wait, "1") == 0) sleep(120);
  }
  errno = saved_errno;
  // A fault re-runs its instruction under the default action when the handler returns. A signal
  // sent by kill, sigqueue or raise has no instruction to re-run: it is sent again, and as the
  // handler doesn't block it, the default action takes it at once.
  if (info == nullptr || info->si_code <= 0) {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, sig);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(sig);
  }
}

}  // namespace

extern "C" int crashlog_seek_to_tail(int fd, off_t size, off_t limit) {
  return seek_to_tail(fd, size, limit) ? 1 : 0;
}

extern "C" void crashlog_write_filtered_lines(crash_log_writer *w, int fd) {
  write_filtered_lines(w, fd);
}

// ---- Alternate signal stacks ------------------------------------------------------------------

namespace {

struct thread_altstack {
  char *mapping;  // null until installed
  size_t mapping_size;
  stack_t previous;
};
thread_local thread_altstack own_altstack = {nullptr, 0, {}};

}  // namespace

extern "C" int crash_altstack_install(void) {
  if (own_altstack.mapping != nullptr) return 0;
  long page = sysconf(_SC_PAGESIZE);
  if (page <= 0) {
    perror("cannot find process page size");
    return -1;
  }
  // The report needs 64 KiB on 4 KiB pages (its frame and a 1024-entry backtrace); the kernel's
  // signal frame comes on top, and grows with the processor's register state.
  long kernel_frame = sysconf(_SC_MINSIGSTKSZ);
  if (kernel_frame < 2048) kernel_frame = 2048;
  size_t usable =
      static_cast<size_t>(32767 / page + 9) + static_cast<size_t>((kernel_frame + page - 1) / page);
  size_t pages = usable + 2;
  char *stack = static_cast<char *>(
      mmap(nullptr, pages * page, PROT_NONE, MAP_ANONYMOUS | MAP_PRIVATE, -1, 0));
  if (stack == MAP_FAILED) {
    perror("cannot allocate alternate stack");
    return -1;
  }
  if (mprotect(stack + page, usable * page, PROT_READ | PROT_WRITE) != 0) {
    perror("cannot change memory protection on alternate stack");
    munmap(stack, pages * page);
    return -1;
  }
  stack_t ss = {};
  ss.ss_sp = stack + page;
  ss.ss_size = usable * page;
  ss.ss_flags = 0;
  if (sigaltstack(&ss, &own_altstack.previous) != 0) {
    perror("cannot set alternate stack");
    munmap(stack, pages * page);
    return -1;
  }
  own_altstack.mapping = stack;
  own_altstack.mapping_size = pages * page;
  return 0;
}

extern "C" void crash_altstack_release(void) {
  if (own_altstack.mapping == nullptr) return;
  // Whoever set the previous stack may free it at thread exit, so it goes back in place.
  if (sigaltstack(&own_altstack.previous, nullptr) != 0)
    return;  // still in use: better leaked than freed
  munmap(own_altstack.mapping, own_altstack.mapping_size);
  own_altstack.mapping = nullptr;
}

// ---- Installation -----------------------------------------------------------------------------

extern "C" int crash_log_creator_init(const char *prefix) {
  crashdumper_start_time = monotonic_now();
  MV_ASSERT(crashdumper_init_state == CRASHDUMPER_NOT_SET_UP_YET);
  if (prefix != nullptr && ospath_copy(&crashdumper_prefix, prefix) != 0) {
    fprintf(stderr, "Prefix too long: \"%s\"\n", prefix);
    return -1;
  }
  crashdumper_init_state = prefix != nullptr ? CRASHDUMPER_TO_DIRECTORY : CRASHDUMPER_TO_STDERR;

  if (crash_altstack_install() != 0) return -1;

  collect_images();
  collect_exec_map();

  // Whatever the unwinder and the time conversion load lazily is loaded now, not in the handler.
  void *one[1];
  backtrace(one, 1);
  time_t now = time(nullptr);
  struct tm tm;
  localtime_r(&now, &tm);

  struct sigaction sa = {};
  sa.sa_sigaction = &crash_signal_handler;
  sa.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
  sigemptyset(&sa.sa_mask);
  for (size_t i = 0; i < sizeof CRASH_SIGNALS / sizeof CRASH_SIGNALS[0]; ++i) {
    if (sigaction(CRASH_SIGNALS[i], &sa, nullptr) != 0) {
      fprintf(stderr, "cannot sigaction signal %d (%s)", CRASH_SIGNALS[i],
              strsignal(CRASH_SIGNALS[i]));
      for (size_t j = 0; j < i; ++j) signal(CRASH_SIGNALS[j], SIG_DFL);
      return -1;
    }
  }
  return 0;
}

extern "C" int crash_log_creator_init_default(void) {
  char prefix[OSPATH_MAX];
  const char *home = getenv("MORVEK_HOME");
  if (home == nullptr) return crash_log_creator_init(".");
  snprintf(prefix, sizeof prefix, "%s/%s", home, "var/log/morvek");
  return crash_log_creator_init(prefix);
}
