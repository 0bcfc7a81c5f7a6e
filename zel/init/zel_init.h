// CZelInit brings the library up for a program's life.
//
// Constructing one (usually at the top of main) runs, once per process:
//   1. the library helper (CZelInitHelper): on Windows the process error mode
//      0x8001 (fail critical errors, no open-file error box) and COM with its
//      security settings; then the thread-local storage manager and the
//      cached environment variables;
//   2. the wxWidgets helper (CWXInitHelper): wxInitialize();
//   3. the locale helper (CLocaleInitHelper): if the C runtime has no locale
//      or the plain "C" locale, the locale is taken from the user's
//      environment.
// Each helper is a guarded singleton, so later CZelInit objects only find
// them constructed; the thread list is got last. At application exit call
// onApplicationExit(), which stops every listed thread (waiting up to 30 s)
// and then disposes every singleton in construction order (wxUninitialize
// included).
#pragma once

#include "zel/core/global.h"

namespace zel {

class ZEL_API CZelInit {
 public:
  // initCom: on Windows, whether the library helper initialises COM (and its
  // security) on the calling thread; only the first CZelInit of a process
  // decides. Ignored on Linux.
  explicit CZelInit(bool initCom = true);
  ~CZelInit();
  CZelInit(const CZelInit&) = delete;
  CZelInit& operator=(const CZelInit&) = delete;

  // Ends the library's life at application exit: stops all threads of the
  // thread list (logging "All threads stopped." or the warning "Not all
  // threads could be stopped."), then disposes all singletons in the order in
  // which they were constructed.
  static void onApplicationExit();
  static constexpr int kStopThreadsTimeoutMs = 30000;

  class CZelInitHelper;
  class CWXInitHelper;
  class CLocaleInitHelper;
};

}  // namespace zel
