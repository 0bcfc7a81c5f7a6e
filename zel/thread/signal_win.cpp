#include "zel/core/error.h"
#include "zel/internal/win_include.h"
#include "zel/thread/signal.h"

namespace zel {

struct CSignal::CImpl {
  HANDLE event;
};

namespace {

[[noreturn]] void throwSignalError(const char* func, const char* action) {
  int64 code = getLastSysError();
  CProps params;
  params.set("action", action);
  params.set("func", func);
  throwSysError(code, params);
}

}  // namespace

CSignal::CSignal() : m_impl(new CImpl) {
  m_impl->event = CreateEventW(nullptr, TRUE, FALSE, nullptr);
  if (!m_impl->event) {
    delete m_impl;
    throwSignalError("CreateEventW", "CSignal::CSignal");
  }
}

CSignal::~CSignal() {
  CloseHandle(m_impl->event);
  delete m_impl;
}

void CSignal::set() {
  if (!SetEvent(m_impl->event)) throwSignalError("SetEvent", "CSignal::set");
}

void CSignal::reset() {
  if (!ResetEvent(m_impl->event)) throwSignalError("ResetEvent", "CSignal::reset");
}

bool CSignal::wait(int ms) {
  DWORD result = WaitForSingleObject(m_impl->event, ms < 0 ? INFINITE : static_cast<DWORD>(ms));
  if (result == WAIT_OBJECT_0) return true;
  if (result == WAIT_TIMEOUT) return false;
  int64 code = getLastSysError();
  CProps params;
  params.set("waitResult", String::fromInt64(result));
  params.set("timeout", String::fromInt64(ms));
  params.set("action", "CSignal::wait");
  params.set("func", "WaitForSingleObject");
  throwSysError(code, params);
}

}  // namespace zel
