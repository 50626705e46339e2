// Pieces shared by the logging sources only: not part of the public interface.
#pragma once

#include <pthread.h>

#include "basicutil/Thread.h"

namespace morvek {

// The logger must keep working while a pthread primitive is failing (the fatal path logs), so
// its scopes lock directly and unlock only what they actually locked.
class LogMutexScope {
 public:
  explicit LogMutexScope(PthreadMutex *m) : _m(m), _locked(pthread_mutex_lock(m->native()) == 0) {}
  ~LogMutexScope() {
    if (_locked) pthread_mutex_unlock(_m->native());
  }
  LogMutexScope(const LogMutexScope &) = delete;
  LogMutexScope &operator=(const LogMutexScope &) = delete;

 private:
  PthreadMutex *_m;
  bool _locked;
};

}  // namespace morvek
