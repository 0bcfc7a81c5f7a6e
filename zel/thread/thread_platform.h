// The operating-system steps of CThread (internal). The portable thread.cpp
// owns the state machine; these only create, wait for, query and name
// threads.
#pragma once

#include "zel/core/string.h"

namespace zel::thread_platform {

struct CNativeHandle;

// Starts entry(arg) on a new thread. On failure returns null and fills the
// two error numbers (errno and the system's last error; 0 where not
// applicable).
CNativeHandle* startThread(void (*entry)(void*), void* arg, uint64& id, int& errnoValue,
                           int64& sysError);
// Waits without limit for the thread to end.
void waitForThread(CNativeHandle* handle);
// True when the thread behind the handle has ended.
bool hasThreadEnded(CNativeHandle* handle);
// Gives the handle up; the thread itself runs on if it has not ended.
void closeThreadHandle(CNativeHandle* handle);

uint64 currentThreadID();
// Throws the system error (with "action" and "func") when the question
// cannot be answered.
bool isThreadAlive(uint64 id);
void killThread(uint64 id, int exitCode);
void setThreadName(uint64 id, const String& name);
void sleepMs(unsigned ms);

}  // namespace zel::thread_platform
