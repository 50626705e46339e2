#include "basicutil/ThreadStacks.h"

#include <dlfcn.h>
#include <ucontext.h>

#include <cstring>

#include "basicutil/Thread.h"

namespace morvek {

namespace {

const void *interruptedPc(const void *ucontext) {
  if (ucontext == nullptr) return nullptr;
  const ucontext_t *uc = static_cast<const ucontext_t *>(ucontext);
#if defined(__x86_64__)
  return reinterpret_cast<const void *>(uc->uc_mcontext.gregs[REG_RIP]);
#elif defined(__aarch64__)
  return reinterpret_cast<const void *>(uc->uc_mcontext.pc);
#else
  (void)uc;
  return nullptr;
#endif
}

// Fills the stack from inside the handler. The walk starts in this function and passes through
// the handler and the signal trampoline; those frames are cut at the interrupted instruction.
void recordStack(ThreadStacks::Stack &stack, const void *ucontext) {
  constexpr int HANDLER_FRAMES = 8;
  void *raw[ThreadStacks::MAX_FRAMES + HANDLER_FRAMES];
  int n = crash_backtrace(raw, ThreadStacks::MAX_FRAMES + HANDLER_FRAMES, 0);
  int first = 0;
  if (const void *pc = interruptedPc(ucontext)) {
    for (int i = 0; i < n && i < HANDLER_FRAMES; ++i) {
      if (raw[i] == pc) {
        first = i;
        break;
      }
    }
  }
  int count = n - first;
  if (count > ThreadStacks::MAX_FRAMES) count = ThreadStacks::MAX_FRAMES;
  memcpy(stack.frames, raw + first, sizeof(void *) * static_cast<size_t>(count));
  stack.frame_count = count;
  stack.captured = true;
}

struct StackActor : Thread::InSignalContextActor {
  explicit StackActor(ThreadStacks::Stack &s) : stack(s) {}
  void act(int, siginfo_t *, void *ucontext) override { recordStack(stack, ucontext); }
  ThreadStacks::Stack &stack;
};

// Without the crash logger's tables, the dynamic symbol and image alone.
void writeSymbol(CrashLogWriter &w, const void *address) {
  if (crash_log_creator_is_set_up()) {
    backtrace_symbol_information info;
    backtrace_symbol_information_init(&info, address);
    backtrace_symbol_information_print(w.handle(), &info);
    return;
  }
  Dl_info dl;
  if (dladdr(address, &dl) == 0) memset(&dl, 0, sizeof dl);
  if (dl.dli_sname == nullptr) {
    w.write("?");
  } else {
    w.write(dl.dli_sname);
    w.write(" + ");
    w.writeUnsigned(static_cast<uint64_t>(static_cast<const char *>(address) -
                                          static_cast<const char *>(dl.dli_saddr)));
  }
  if (dl.dli_fname != nullptr) {
    const char *base = strrchr(dl.dli_fname, '/');
    w.write(" (");
    w.write(base != nullptr ? base + 1 : dl.dli_fname);
    w.write(")");
  }
}

}  // namespace

size_t ThreadStacks::capture() {
  _stacks.clear();
  Thread *self = Thread::getCurrent();
  auto start = [this](Thread &thr) -> Stack & {
    Stack &s = _stacks.emplace_back();
    s.name = thr.getName();
    s.thread_id = thr.getThreadId();
    return s;
  };
  // The walk's lock keeps every listed thread from being joined while it is signalled.
  Thread::iterateEachRunningWith([&](Thread &thr) {
    if (&thr == self) return;
    StackActor actor(start(thr));
    thr.runInUnixSignalContext(&actor);
  });
  Thread *main_thread = Thread::getMainThread();
  if (main_thread != nullptr && main_thread != self) {
    StackActor actor(start(*main_thread));
    main_thread->runInUnixSignalContext(&actor);
  }
  Stack &mine = _stacks.emplace_back();
  mine.name = Thread::getCurrentThreadName();
  mine.thread_id = Thread::getCurrentThreadId();
  mine.capturing = true;
  mine.frame_count = crash_backtrace(mine.frames, MAX_FRAMES, 0);
  mine.captured = true;
  size_t captured = 0;
  for (const Stack &s : _stacks) captured += s.captured ? 1 : 0;
  return captured;
}

const ThreadStacks::Stack *ThreadStacks::find(StrSegment name) const {
  for (const Stack &s : _stacks) {
    if (s.name.segment() == name) return &s;
  }
  return nullptr;
}

void ThreadStacks::writeTo(CrashLogWriter &w) const {
  for (const Stack &s : _stacks) {
    w.write("Thread \"");
    w.write(s.name);
    w.write("\" id ");
    w.writeUnsigned(s.thread_id);
    if (s.capturing) w.write(" (capturing)");
    if (!s.captured) {
      w.write(": no stack (the thread ended first)\n");
      continue;
    }
    w.write(":\n");
    for (int i = 0; i < s.frame_count; ++i) {
      w.write("  #");
      w.writeUnsigned(static_cast<uint32_t>(i));
      w.write(" 0x");
      char hex[17];
      uintptr_t v = reinterpret_cast<uintptr_t>(s.frames[i]);
      for (int d = 15; d >= 0; --d, v >>= 4) hex[d] = "0123456789abcdef"[v & 15];
      w.write(hex, 16);
      w.writeChar(' ');
      writeSymbol(w, s.frames[i]);
      w.writeChar('\n');
    }
  }
}

void ThreadStacks::appendTo(Str &out) const {
  appendCrashLogRendering(out, [this](CrashLogWriter &w) { writeTo(w); });
}

}  // namespace morvek
