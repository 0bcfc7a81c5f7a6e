// CErrorBackgroundOp: a background operation that failed before it started.
//
// A file system returns it when it cannot even queue an operation (a bad
// address, a bad argument), so that callers handle every failure the same
// way: through throwErrorIfFailed(). It is finished from the start:
// hasFinished() and waitFinished() answer true at once for any time-out, and
// throwErrorIfFailed() throws the held error again each time it is called,
// keeping the error's class.
//
// The done listener, if any, is told from the constructor, on the creating
// thread, before the object is handed out; the listener is not kept, and an
// exception it throws is logged and otherwise ignored.
#pragma once

#include <exception>

#include "zel/core/base.h"
#include "zel/core/error.h"
#include "zel/core/export.h"
#include "zel/fs/file_system.h"

namespace zel {

class ZEL_API CErrorBackgroundOp final : public CBase, public IBackgroundOp {
 public:
  // Holds a clone of error.
  CErrorBackgroundOp(const CError& error, IDoneListener* listener);
  // Holds the exception being handled, turned into a CError
  // (CStdExceptionError::exceptionToError). Call only inside a catch block.
  explicit CErrorBackgroundOp(IDoneListener* listener);
  ~CErrorBackgroundOp() override;

  bool hasFinished() override { return true; }
  bool waitFinished(int) override { return true; }
  void throwErrorIfFailed() override;

  PC<CError> getError() const { return m_error; }

 private:
  void notify(IDoneListener* listener);

  // Never changed after construction, so several threads may throw it.
  PC<CError> m_error;
};

}  // namespace zel
