#include "zel/fs/error_background_op.h"

#include "zel/log/xml_log.h"

namespace zel {

CErrorBackgroundOp::CErrorBackgroundOp(const CError& error, IDoneListener* listener)
    : m_error(error.clone()) {
  notify(listener);
}

CErrorBackgroundOp::CErrorBackgroundOp(IDoneListener* listener)
    : m_error(CStdExceptionError::exceptionToError()) {
  notify(listener);
}

CErrorBackgroundOp::~CErrorBackgroundOp() = default;

void CErrorBackgroundOp::notify(IDoneListener* listener) {
  if (!listener) return;
  // The listener may take and drop references to the operation; ours (the
  // creation reference) keeps it alive throughout.
  try {
    listener->onBackgroundOpDone(this);
  } catch (...) {
    P<CError> thrown = CStdExceptionError::exceptionToError();
    logError("A background operation's done listener threw.", thrown.get());
  }
}

void CErrorBackgroundOp::throwErrorIfFailed() { m_error->throwClone(); }

}  // namespace zel
