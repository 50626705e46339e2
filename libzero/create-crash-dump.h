// The crash log creator's low-level interface: writers and notation lists usable from a signal
// handler. Nothing here allocates on the crash path.
#pragma once

#include <stddef.h>

#ifdef __cplusplus
extern "C" {
#endif

// A writer is any object whose first word is its write function.
typedef struct crash_log_write_handle crash_log_write_handle;
typedef void (*crash_log_write_func)(crash_log_write_handle *h, const char *bytes, size_t len);
struct crash_log_write_handle {
  crash_log_write_func write;
};

// A notation: a piece of context that renders itself into the crash log if the process dies.
typedef struct crashlog_notation_entry crashlog_notation_entry;
typedef void (*crashlog_notation_render_func)(crashlog_notation_entry *e,
                                              crash_log_write_handle *writer);
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

// A list head: root and last are both null when the list is empty.
typedef struct crashlog_notation_perthread_state {
  crashlog_notation_entry *root;
  crashlog_notation_entry *last;
} crashlog_notation_perthread_state;

#ifdef __cplusplus
}
#endif
