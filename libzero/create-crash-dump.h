// The crash log creator: on a fatal signal, writes a report from inside the signal handler and
// lets the signal kill the process. This layer knows nothing of the classes above it; threads,
// exceptions and formatting are plugged in through function pointers. Nothing on the crash path
// allocates, takes a lock or uses stdio.
#pragma once

#include <stdarg.h>
#include <stddef.h>
#include <stdint.h>
#include <sys/types.h>
#include <time.h>

#ifdef __cplusplus
extern "C" {
#endif

// ---- Writers ------------------------------------------------------------------------------

// A writer is any object whose first word is its write function.
typedef struct crash_log_writer crash_log_writer;
typedef void (*crash_log_write_func)(crash_log_writer *w, const char *bytes, size_t len);
struct crash_log_writer {
  crash_log_write_func do_write;
};

// The writer of the crash path: a descriptor, with limits against huge and looping reports.
typedef struct crash_log_write_handle {
  crash_log_writer whand;
  int fd;
  uint64_t written;         // bytes that reached the descriptor
  uint64_t overflow_bytes;  // bytes refused since the overflow; 0 until it happens
  struct timespec overflow_time;
} crash_log_write_handle;

#define CRASH_LOG_MAX_SINGLE_WRITE 51200
#define CRASH_LOG_MAX_TOTAL 524288
#define CRASH_LOG_LOOPING_EXIT_STATUS 87

void crash_log_write_handle_init(crash_log_write_handle *z, int fd);
// Refuses single writes over 50 kB, truncates the log at 512 KiB, and exits with status 87 when
// writes still arrive 3 seconds after the truncation.
void default_crash_log_write(crash_log_writer *w, const char *bytes, size_t length);

static inline void crashlog_write(crash_log_writer *w, const char *bytes, size_t len) {
  w->do_write(w, bytes, len);
}
void crashlog_write_cstr(crash_log_writer *w, const char *cstr);
// Positions fd at the first whole line among its last `limit` bytes; 0 if that fails.
int crashlog_seek_to_tail(int fd, off_t size, off_t limit);
// The rest of fd as indented printable lines (NUL and CR dropped, TAB as blank, others as '?'),
// then an empty line.
void crashlog_write_filtered_lines(crash_log_writer *w, int fd);
// Formats through the installed printf function, or by default through a 500-byte stack buffer
// (longer output is cut to 499 bytes ending in "...").
void crashlog_printf(crash_log_writer *w, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
void crashlog_vprintf(crash_log_writer *w, const char *format, va_list ap)
    __attribute__((format(printf, 2, 0)));

// ---- Notations ------------------------------------------------------------------------------

// A notation: a piece of context that renders itself into the crash log if the process dies.
typedef struct crashlog_notation_entry crashlog_notation_entry;
typedef void (*crashlog_notation_render_func)(crashlog_notation_entry *e, crash_log_writer *w);
typedef void (*crashlog_notation_destruct_func)(crashlog_notation_entry *e);
struct crashlog_notation_ent {
  crashlog_notation_render_func render;
  crashlog_notation_destruct_func destruct;
};
struct crashlog_notation_entry {
  struct crashlog_notation_ent ent;
  crashlog_notation_entry *next;
  crashlog_notation_entry *prev;
};

// The entry of a string notation; the text is not owned.
typedef struct crashlog_notation_string_entry {
  crashlog_notation_entry e;
  const char *text;
  size_t length;
} crashlog_notation_string_entry;

// A list head: root and last are both null when the list is empty.
typedef struct crashlog_notation_perthread_state {
  crashlog_notation_entry *root;
  crashlog_notation_entry *last;
} crashlog_notation_perthread_state;

typedef crashlog_notation_perthread_state *(*crashlog_notation_perthread_state_getter)(void);

// Appends a caller-owned entry to the process-wide list. Callers serialise appends; the crash
// handler reads the list without a lock, so the entry is complete before it is linked.
void crashlog_notation_attach(crashlog_notation_entry *entry);
// The same with a heap entry around an uncopied text: -1 if the entry can't be allocated.
int crashlog_notation_attach_string(const char *text, size_t length);
// The calling thread's stack of notations: -1 when there is no per-thread state.
int crashlog_notation_perthread_push(crashlog_notation_entry *entry);
int crashlog_notation_perthread_push_string(const char *text, size_t length);
void crashlog_notation_perthread_pop(void);
void crashlog_notation_write_string(crashlog_notation_entry *e, crash_log_writer *w);
void free_crashlog_notation_destruct_func(crashlog_notation_entry *e);
// One static list for programs without threads of their own.
crashlog_notation_perthread_state *crashlog_notation_single_thread_state(void);
// The process-wide list, for the handler and for tests.
crashlog_notation_perthread_state *crashlog_notation_global_list(void);

// ---- Installation and hooks -----------------------------------------------------------------

enum {
  CRASHDUMPER_NOT_SET_UP_YET = 0,
  CRASHDUMPER_TO_DIRECTORY = 1,
  CRASHDUMPER_TO_STDERR = 2,
};

// Installs the crash logger: a new file in prefix per crash, or standard error for null.
// Returns 0, or -1 if something could not be set up (the reason went to standard error).
int crash_log_creator_init(const char *prefix);
// The prefix is "$MORVEK_HOME/var/log/morvek", or "." without that variable.
int crash_log_creator_init_default(void);
int crash_log_creator_is_set_up(void);
// The file whose tail an abort report shows.
void crash_log_set_stderr_file(const char *name);

// Gives the calling thread an alternate signal stack of its own, so that a crash report can be
// written after the thread's stack overflowed: 16 pages of 4 KiB for the report, plus what the
// kernel puts on a signal frame, between two inaccessible guard pages. Whatever stack the thread
// had before (a sanitizer's, say) is kept for crash_altstack_release. Once per thread; later
// calls return 0 at once. Returns -1 (and says why on standard error) if it can't be set up.
// Every thread that may crash needs one: the crash logger's installation gives the caller one,
// and the thread layer gives one to the main thread and to each thread it starts.
int crash_altstack_install(void);
// Puts back the stack the thread had before and frees its own; the thread's last act.
void crash_altstack_release(void);

typedef const char *(*crash_log_thread_name_func)(void);
typedef unsigned (*crash_log_thread_count_func)(void);
// Writes an extra block; returns non-zero when it had something to report.
typedef int (*crash_log_extra_report_func)(crash_log_writer *w);
typedef void (*crash_log_printf_func)(crash_log_writer *w, const char *format, va_list ap);

void crash_log_set_notation_perthread_state_func(crashlog_notation_perthread_state_getter f);
void crash_log_set_thread_name_func(crash_log_thread_name_func f);
void crash_log_set_thread_count_func(crash_log_thread_count_func f);
void crash_log_set_extra_report_func(crash_log_extra_report_func f);
void crash_log_set_printf_func(crash_log_printf_func f);

// ---- Backtraces and symbols -----------------------------------------------------------------

// Each form fills at most max addresses of the calling stack, leaving out skip frames after the
// caller's own, and returns the count. The context forms don't use the context (frames come
// from the current stack) and report how many frames did not fit. A form called while another
// runs on the same thread returns 0.
int crash_backtrace(void **addrs, int max, int skip);
int crash_backtrace_with_sizes(void **addrs, size_t *sizes, int max, int skip);
int crash_backtrace_from_context(void **addrs, int max, int skip, const void *ucontext,
                                 int *left_over);
int crash_backtrace_with_sizes_from_context(void **addrs, size_t *sizes, int max, int skip,
                                            const void *ucontext, int *left_over);
// Picks the form by which of sizes, ucontext and left_over are null.
int crash_backtrace_any(void **addrs, size_t *sizes, int max, int skip, const void *ucontext,
                        int *left_over);
typedef int (*crash_backtrace_replacement_func)(void **addrs, size_t *sizes, int max, int skip,
                                                const void *ucontext, int *left_over);
void crash_backtrace_set_replacement(crash_backtrace_replacement_func f);

typedef struct backtrace_symbol_information {
  const char *symbol_name;
  unsigned long symbol_offset;
  unsigned long long symbol_size;
  unsigned long long text_offset;  // from the start of the executable region
  const char *image_name;          // not terminated: see image_name_length
  size_t image_name_length;
  const char *source_file;
  unsigned source_line;
} backtrace_symbol_information;

void backtrace_symbol_information_init(backtrace_symbol_information *info, const void *address);
// "name + offset (image + 0xOFF)", or "?" for an unknown symbol.
void backtrace_symbol_information_print(crash_log_writer *w,
                                        const backtrace_symbol_information *info);

#ifdef __cplusplus
}
#endif
