#include "zel/core/error.h"

#include <cinttypes>
#include <cstdint>
#include <cstdio>
#include <string>
#include <utility>

#include "zel/core/type_name.h"

namespace zel {

namespace {

const char kWhatFallback[] = "<exception during CError::what>";

const String& traceKey() {
  static const String key("_trace");
  return key;
}

}  // namespace

// One cached what() text. Replaced texts stay reachable through `older`
// because a caller may still hold their pointer.
struct CError::WhatText {
  std::string text;
  WhatText* older;
};

// ---------------------------------------------------------------------------
// CError

CError::CError(const String& message, const String& domain, int64 code, const CProps& params,
               const CError* cause)
    : m_message(message),
      m_domain(domain),
      m_code(code),
      m_params(params),
      m_cause(cause ? PC<CError>(cause->clone()) : PC<CError>()) {}

CError::CError(const CError& other)
    : CBase(other),
      std::exception(other),
      m_message(other.m_message),
      m_domain(other.m_domain),
      m_code(other.m_code),
      m_params(other.m_params),
      m_cause(other.m_cause ? PC<CError>(other.m_cause->clone()) : PC<CError>()) {}

CError& CError::operator=(const CError& other) {
  if (this != &other) {
    // Clone first: if it throws, this error stays as it was.
    PC<CError> cause = other.m_cause ? PC<CError>(other.m_cause->clone()) : PC<CError>();
    m_message = other.m_message;
    m_domain = other.m_domain;
    m_code = other.m_code;
    m_params = other.m_params;
    m_cause = std::move(cause);
    markWhatStale();
  }
  return *this;
}

CError::~CError() {
  WhatText* text = m_what.load(std::memory_order_acquire);
  while (text) {
    delete std::exchange(text, text->older);
  }
}

CProps& CError::getParams() {
  markWhatStale();
  return m_params;
}

void CError::setCause(const CError& cause) {
  m_cause = cause.clone();
  markWhatStale();
}

bool CError::isError(const String& domain, int64 code) const {
  return m_code == code && m_domain == domain;
}

void CError::addTrace(const String& line) {
  String list = m_params.get(traceKey());
  if (!list.isEmpty()) list += L'\n';
  list += line;
  m_params.set(traceKey(), list);
  markWhatStale();
}

String CError::getTraceListString() const { return m_params.get(traceKey()); }

String CError::getInternalDesc() const {
  String desc;
  if (!m_domain.isEmpty()) {
    desc = m_domain + L' ' + String::fromInt64(m_code);
  } else if (m_code != -1) {
    desc = String::fromInt64(m_code);
  }
  for (int i = 0; i < m_params.getCount(); ++i) {
    if (!desc.isEmpty()) desc += L", ";
    desc += m_params.getKey(i);
    desc += L"='";
    desc += m_params.getValue(i);
    desc += L'\'';
  }
  if (PC<CError> cause = getCause()) {
    // " (" even with nothing before it, so that a description reads the
    // same whether or not the error has a code.
    desc += L" (";
    desc += cause->getDesc();
    desc += L')';
  }
  return desc;
}

String CError::getDesc() const {
  String internal = getInternalDesc();
  if (internal.isEmpty()) return m_message;
  return m_message + L" [" + internal + L']';
}

const char* CError::what() const noexcept {
  WhatText* cached = m_what.load(std::memory_order_acquire);
  if (cached && !m_whatStale.load(std::memory_order_acquire)) return cached->text.c_str();
  try {
    int length = 0;
    wxCharBuffer narrow = getDesc().toCPSafe(&length);
    const char* data = narrow.data();
    std::string text = !data          ? std::string()
                       : length > 0 ? std::string(data, size_t(length))
                                    : std::string(data);
    for (;;) {
      if (cached && cached->text == text) {
        m_whatStale.store(false, std::memory_order_release);
        return cached->text.c_str();
      }
      auto* fresh = new WhatText{text, cached};
      if (m_what.compare_exchange_strong(cached, fresh, std::memory_order_acq_rel)) {
        m_whatStale.store(false, std::memory_order_release);
        return fresh->text.c_str();
      }
      // Another thread cached a text meanwhile; `cached` now holds it.
      delete fresh;
    }
  } catch (...) {
    return kWhatFallback;
  }
}

P<CError> CError::clone() const { return createObject<CError>(*this); }

void CError::throwClone() const { throw CError(*this); }

const String& CError::sysErrorDomain() {
#if defined(_WIN32)
  return winSysErrorDomain();
#else
  return errnoErrorDomain();
#endif
}

const String& CError::winSysErrorDomain() {
  static const String domain("sys");
  return domain;
}

const String& CError::errnoErrorDomain() {
  static const String domain("errno");
  return domain;
}

// ---------------------------------------------------------------------------
// CIOError

CIOError::CIOError(Code code, const String& message, const CProps& params, const CError* cause)
    : CError(message.isEmpty() ? getDefaultMessage(code) : message, errorCodeDomain(), code,
             params, cause) {}

CIOError::CIOError(wxStreamError error, const String& message, const CProps& params,
                   const CError* cause)
    : CIOError(streamErrorToCode(error), message, params, cause) {}

String CIOError::getDefaultMessage(int code) {
  switch (code) {
    case Unknown: return String("Unknown I/O error.");
    case OpenFailed: return String("Error opening file or stream.");
    case ReadFailed: return String("Error reading data.");
    case WriteFailed: return String("Error writing data.");
    case UnexpectedEnd: return String("Unexpected end of data.");
    case InvalidData: return String("The data is invalid or corrupted.");
    case UnsupportedVersion: return String("Unsupported or invalid data version.");
    case SeekFailed: return String("Error seeking to new position.");
    case MoveFailed: return String("Error moving a file.");
    case DeleteFailed: return String("Error deleting a file.");
    case StreamClosed: return String("Error: stream has been closed.");
    case PositionNotAligned: return String("Error: stream position is not aligned correctly.");
    case BufferNotAligned:
      return String("Error: buffer passed to stream is not aligned correctly.");
    case ResizeFailed: return String("Error changing the size of a file.");
    default: return String();
  }
}

CIOError::Code CIOError::streamErrorToCode(wxStreamError error) {
  switch (error) {
    case wxSTREAM_EOF: return UnexpectedEnd;
    case wxSTREAM_WRITE_ERROR: return WriteFailed;
    case wxSTREAM_READ_ERROR: return ReadFailed;
    default: return Unknown;
  }
}

const String& CIOError::errorCodeDomain() {
  static const String domain("IO");
  return domain;
}

const String& CIOError::paramURI() {
  static const String key("uri");
  return key;
}

P<CError> CIOError::clone() const { return createObject<CIOError>(*this); }
void CIOError::throwClone() const { throw CIOError(*this); }

// ---------------------------------------------------------------------------
// CFileSystemError

CFileSystemError::CFileSystemError(Problem problem, const CError& error) : CError(error) {
  getParams().set(paramFileSysProblem(), String::fromInt64(problem));
}

CFileSystemError::Problem CFileSystemError::getProblem(const CProps& params) {
  const String text = params.get(paramFileSysProblem());
  const int length = text.getLength();
  // Nine digits cannot overflow an int; problem numbers are small.
  if (length == 0 || length > 9) return ProblemUnknown;
  const wchar_t* digits = text.toWChar();
  int value = 0;
  for (int i = 0; i < length; ++i) {
    if (digits[i] < L'0' || digits[i] > L'9') return ProblemUnknown;
    value = value * 10 + int(digits[i] - L'0');
  }
  return static_cast<Problem>(value);
}

const String& CFileSystemError::paramFileSysProblem() {
  static const String key("fileSysProblem");
  return key;
}

P<CError> CFileSystemError::clone() const { return createObject<CFileSystemError>(*this); }
void CFileSystemError::throwClone() const { throw CFileSystemError(*this); }

// ---------------------------------------------------------------------------
// Errors that are a message and nothing more

CBadPathError::CBadPathError(const String& path) : CError(String("Invalid path: ") + path) {}
P<CError> CBadPathError::clone() const { return createObject<CBadPathError>(*this); }
void CBadPathError::throwClone() const { throw CBadPathError(*this); }

CInvalidArgError::CInvalidArgError(const String& function, const String& description,
                                   const CProps& params)
    : CError(String("Invalid argument passed to '") + function + "': " + description, String(), -1,
             params) {}
P<CError> CInvalidArgError::clone() const { return createObject<CInvalidArgError>(*this); }
void CInvalidArgError::throwClone() const { throw CInvalidArgError(*this); }

CNotImplementedError::CNotImplementedError(const String& function)
    : CError(String("The function '") + function + "' is not implemented.") {}
P<CError> CNotImplementedError::clone() const { return createObject<CNotImplementedError>(*this); }
void CNotImplementedError::throwClone() const { throw CNotImplementedError(*this); }

CBadStateError::CBadStateError(const String& text, const CProps& params)
    : CError(text, String(), -1, params) {}
P<CError> CBadStateError::clone() const { return createObject<CBadStateError>(*this); }
void CBadStateError::throwClone() const { throw CBadStateError(*this); }

CParseError::CParseError(const String& text, const CProps& params)
    : CError(text, String(), -1, params) {}
P<CError> CParseError::clone() const { return createObject<CParseError>(*this); }
void CParseError::throwClone() const { throw CParseError(*this); }

CBadCollPositionError::CBadCollPositionError()
    : CError(String("The position does not denote an element of the collection.")) {}
P<CError> CBadCollPositionError::clone() const {
  return createObject<CBadCollPositionError>(*this);
}
void CBadCollPositionError::throwClone() const { throw CBadCollPositionError(*this); }

CUnencodableStringError::CUnencodableStringError()
    : CError(String(
          "The text contains characters that cannot be represented in the target encoding.")) {}
P<CError> CUnencodableStringError::clone() const {
  return createObject<CUnencodableStringError>(*this);
}
void CUnencodableStringError::throwClone() const { throw CUnencodableStringError(*this); }

// ---------------------------------------------------------------------------
// CFileCorruptedError

CFileCorruptedError::CFileCorruptedError()
    : CError(String("The file is corrupted."), CIOError::errorCodeDomain(),
             CIOError::InvalidData) {}

CFileCorruptedError::CFileCorruptedError(const String& path)
    : CError(String("The file '%FILE%' is corrupted.").cloneReplace(String("%FILE%"), path),
             CIOError::errorCodeDomain(), CIOError::InvalidData) {}

P<CError> CFileCorruptedError::clone() const { return createObject<CFileCorruptedError>(*this); }
void CFileCorruptedError::throwClone() const { throw CFileCorruptedError(*this); }

// ---------------------------------------------------------------------------
// CCastError

namespace {

String castMessage(const IBase* object, const std::type_info* target) {
  String message;
  if (object) {
    // The address of the whole object, not of its IBase part.
    const void* address = dynamic_cast<const void*>(object);
    char hex[32];
    std::snprintf(hex, sizeof(hex), "0x%016" PRIx64,
                  static_cast<uint64>(reinterpret_cast<std::uintptr_t>(address)));
    message = String("Error casting object ") + hex + " of type " + getTypeName(typeid(*object));
  } else {
    message = String("Error casting an unspecified object");
  }
  if (target) {
    message += String(" to type ") + getTypeName(*target);
  } else {
    message += " to an unspecified type.";
  }
  return message;
}

}  // namespace

CCastError::CCastError(const IBase* object, const std::type_info* target)
    : CError(castMessage(object, target)) {}

P<CError> CCastError::clone() const { return createObject<CCastError>(*this); }
void CCastError::throwClone() const { throw CCastError(*this); }

void throwCastError(const IBase* object, const std::type_info* target) {
  throw CCastError(object, target);
}

// ---------------------------------------------------------------------------
// CSocketError

namespace {

String socketErrorText(int code) {
  switch (code) {
    case 10035: return String("operation would block");
    case 10048: return String("address already in use");
    case 10050: return String("network is down");
    case 10051: return String("network unreachable");
    case 10052: return String("connection was reset");
    case 10053: return String("connection was locally aborted (possibly due to timeout)");
    case 10054: return String("connection was closed by peer");
    case 10057: return String("socket is not connected");
    case 10058: return String("socket has been shut down");
    case 10060: return String("connection timed out");
    case 10061: return String("connection refused");
    case 10065: return String("no route to host");
    case 10093: return String("Windows socket system not initialized (WSAStartup was not called)");
    default: return String("unknown error (") + String::fromInt64(code) + ")";
  }
}

}  // namespace

CSocketError::CSocketError(int winsockCode)
    : CError(String("Socket error: ") + socketErrorText(winsockCode), winSysErrorDomain(),
             winsockCode) {}

P<CError> CSocketError::clone() const { return createObject<CSocketError>(*this); }
void CSocketError::throwClone() const { throw CSocketError(*this); }

// ---------------------------------------------------------------------------
// CStdExceptionError

namespace {

String exceptionText(const std::exception& exception) {
  const char* text = exception.what();
  if (!text || !*text) return String();
  String result;
  try {
    result = String(text);
  } catch (const CError&) {
  }
  // Text that is not valid in the current code page still says something as
  // Latin-1, which decodes every byte.
  if (result.isEmpty()) result = String(text, wxConvISO8859_1);
  return result;
}

}  // namespace

CStdExceptionError::CStdExceptionError(const std::exception& exception)
    : CError(exceptionText(exception), errorCodeDomain(), -1) {}

P<CError> CStdExceptionError::exceptionToError(const std::exception& exception) {
  if (const auto* error = dynamic_cast<const CError*>(&exception)) return error->clone();
  return createObject<CStdExceptionError>(exception);
}

P<CError> CStdExceptionError::exceptionToError() {
  std::exception_ptr current = std::current_exception();
  if (current) {
    try {
      std::rethrow_exception(current);
    } catch (const std::exception& exception) {
      return exceptionToError(exception);
    } catch (...) {
    }
  }
  return createObject<CError>(String("Unknown exception."));
}

const String& CStdExceptionError::errorCodeDomain() {
  static const String domain("STDEXC");
  return domain;
}

P<CError> CStdExceptionError::clone() const { return createObject<CStdExceptionError>(*this); }
void CStdExceptionError::throwClone() const { throw CStdExceptionError(*this); }

// ---------------------------------------------------------------------------
// CThreadError

namespace {

String threadErrorText(wxThreadError error) {
  switch (error) {
    case wxTHREAD_NO_ERROR: return String("No thread error.");
    case wxTHREAD_NO_RESOURCE: return String("Not enough resources to create a thread.");
    case wxTHREAD_RUNNING: return String("The thread is already running.");
    case wxTHREAD_NOT_RUNNING: return String("The thread is not running.");
    case wxTHREAD_KILLED: return String("The thread had to be killed.");
    case wxTHREAD_MISC_ERROR: return String("Unspecified thread error.");
  }
  return String("Thread error ") + String::fromInt64(error) + ".";
}

}  // namespace

CThreadError::CThreadError(wxThreadError error)
    : CError(threadErrorText(error), errorCodeDomain(), error) {}

CThreadError::CThreadError(const CError& error) : CError(error) {}

const String& CThreadError::errorCodeDomain() {
  static const String domain("wxThread");
  return domain;
}

P<CError> CThreadError::clone() const { return createObject<CThreadError>(*this); }
void CThreadError::throwClone() const { throw CThreadError(*this); }

// ---------------------------------------------------------------------------
// Throwing system errors

void throwSysError(int64 code, const CProps& params) {
  // Building the message may touch the last error; the thrower's catch
  // clause may still want to read it.
  CPreserveLastSysError preserve;
  throw CError(getSysErrorMessage(code), CError::sysErrorDomain(), code, params);
}

void throwSysError(const String& func, const String& action, int64 code) {
  CPreserveLastSysError preserve;
  CProps params;
  params.set(String("func"), func);
  params.set(String("action"), action);
  throwSysError(code, params);
}

}  // namespace zel
