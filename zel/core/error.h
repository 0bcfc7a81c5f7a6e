// CError, the one exception type of the library, and its subclasses.
//
// An error names its kind by the pair (domain, code): "sys" with a Windows
// system error code (GetLastError, WinSock), "errno" with an errno value of
// the running platform, "IO" with a CIOError::Code, "STDEXC" for a wrapped
// standard exception, "wxThread" with a wxThreadError value. An empty domain
// means the error has no code (the code is then -1); the class alone tells the
// kind, and that is lost when an error is stored on a stream and loaded again.
//
// Errors are thrown by value. To keep one (to hand it to another thread, or to
// throw it later) hold it as P<CError> from clone(), and throw it again with
// throwClone(): both keep the most-derived class, so a catch clause for the
// subclass still matches. An error is not synchronised: it must not be used by
// other threads while it is modified; const use (what() included) may happen on
// several threads at once.
//
// Descriptions:
//   getInternalDesc()  "<domain> <code>" (the code in decimal; only the code
//                      when the domain is empty and the code is not -1;
//                      nothing when there is no code), then each parameter as
//                      key='value' in the order of the parameters, all these
//                      pieces separated by ", "; then, when there is a cause,
//                      " (" + the cause's getDesc() + ")" (so causes nest;
//                      the blank is left out when nothing precedes it).
//                      Example: sys 5, func='CreateFileW', action='CFile::open'
//                               (Disk failure. [errno 5])
//   getDesc()          the message, followed by " [" + internal + "]" when the
//                      internal description is not empty.
//   what()             getDesc() converted safely to the current code page
//                      (unencodable characters become "?"), built on the first
//                      call and cached. It never throws; if building fails it
//                      returns "<exception during CError::what>".
#pragma once

#include <atomic>
#include <exception>
#include <typeinfo>

#include <wx/stream.h>
#include <wx/thread.h>

#include "zel/core/base.h"
#include "zel/core/props.h"
#include "zel/core/string.h"
#include "zel/core/types.h"

namespace zel {

class IInStream;

class ZEL_API CError : public CBase, public std::exception {
 public:
  // A null cause means none; a given cause is cloned.
  CError(const String& message, const String& domain = String(), int64 code = -1,
         const CProps& params = CProps(), const CError* cause = nullptr);
  // Copies every field; the cause is cloned (deep copy), the what() cache is
  // not copied.
  CError(const CError& other);
  CError& operator=(const CError& other);
  ~CError() override;

  const String& getMessage() const { return m_message; }
  const String& getErrorCodeDomain() const { return m_domain; }
  int64 getErrorCode() const { return m_code; }
  const CProps& getParams() const { return m_params; }
  // Marks the cached what() text as stale: the next what() rebuilds it.
  CProps& getParams();
  void setCause(const CError& cause);

  // True when the domain is not empty.
  bool hasErrorCode() const { return !m_domain.isEmpty(); }
  // Exact comparison: the domain is case-sensitive.
  bool isError(const String& domain, int64 code) const;

  // Appends one line to the trace list, kept in the parameters under
  // "_trace" (lines separated by "\n").
  void addTrace(const String& line);
  // The trace lines as one text, "\n" between them; empty when there are none.
  String getTraceListString() const;

  String getDesc() const;
  String getInternalDesc() const;

  // A deep copy of the most-derived class.
  virtual P<CError> clone() const;
  // Throws a copy of the most-derived class.
  [[noreturn]] virtual void throwClone() const;
  virtual PC<CError> getCause() const { return m_cause; }
  // The returned text stays valid as long as the error lives, even across
  // later modifications (a changed error gets a new cached text; old texts
  // are kept until destruction).
  const char* what() const noexcept override;

  // Domain of the running platform's system error codes: "sys" on Windows
  // (GetLastError codes), "errno" on Linux (errno values).
  static const String& sysErrorDomain();
  // "sys": Windows system error codes, recognised on every platform.
  static const String& winSysErrorDomain();
  // "errno": errno values of the running platform.
  static const String& errnoErrorDomain();

 private:
  struct WhatText;
  void markWhatStale() { m_whatStale.store(true, std::memory_order_relaxed); }

  String m_message;
  String m_domain;
  int64 m_code;
  CProps m_params;
  PC<CError> m_cause;
  // Newest cached what() text; older ones hang off it until destruction.
  mutable std::atomic<WhatText*> m_what{nullptr};
  mutable std::atomic<bool> m_whatStale{false};
};

// I/O failures, domain "IO".
class ZEL_API CIOError : public CError {
 public:
  enum Code {
    Unknown = 0,
    OpenFailed = 1,
    ReadFailed = 2,
    WriteFailed = 3,
    UnexpectedEnd = 4,
    InvalidData = 5,
    UnsupportedVersion = 6,
    SeekFailed = 7,
    MoveFailed = 8,
    DeleteFailed = 9,
    StreamClosed = 10,
    PositionNotAligned = 11,
    BufferNotAligned = 12,
    ResizeFailed = 13,
  };

  // An empty message is replaced by getDefaultMessage(code).
  explicit CIOError(Code code, const String& message = String(), const CProps& params = CProps(),
                    const CError* cause = nullptr);
  explicit CIOError(wxStreamError error, const String& message = String(),
                    const CProps& params = CProps(), const CError* cause = nullptr);

  // The default message of a code; empty for values outside 0 to 13.
  static String getDefaultMessage(int code);
  // End of stream -> UnexpectedEnd, write error -> WriteFailed, read error ->
  // ReadFailed, anything else -> Unknown.
  static Code streamErrorToCode(wxStreamError error);
  static const String& errorCodeDomain();  // "IO"
  static const String& paramURI();         // "uri"

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A copy of another error marked with the file-system problem it stands for,
// so that callers can classify errors of any origin (see the predicates).
class ZEL_API CFileSystemError : public CError {
 public:
  // Problem numbers are stored in the parameters and travel between
  // processes: never renumber them.
  enum Problem : int {
    ProblemUnknown = 0,
    ProblemNotFound = 1,
    ProblemAlreadyExists = 2,
    ProblemInvalidName = 3,  // the name or path is not valid on the file system
    ProblemOutOfSpace = 4,
    ProblemAccessDenied = 5,
    ProblemUnsupported = 6,
    ProblemWrongType = 7,  // a file where a folder was expected, or the reverse
    ProblemNetworkConnection = 8,
  };

  // Copies message, domain, code, parameters and cause of error, and adds the
  // problem to the parameters under "fileSysProblem" as decimal text.
  CFileSystemError(Problem problem, const CError& error);

  // The problem kept in params; ProblemUnknown when there is none or its text
  // is not a plain decimal number of at most nine digits. Numbers without a
  // name here (from a newer peer) are returned as they are.
  static Problem getProblem(const CProps& params);
  Problem getProblem() const { return getProblem(getParams()); }
  static const String& paramFileSysProblem();  // "fileSysProblem"

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// "Invalid path: <path>"
class ZEL_API CBadPathError : public CError {
 public:
  explicit CBadPathError(const String& path);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// "Invalid argument passed to '<function>': <description>"
class ZEL_API CInvalidArgError : public CError {
 public:
  CInvalidArgError(const String& function, const String& description,
                   const CProps& params = CProps());
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// "The function '<function>' is not implemented."
class ZEL_API CNotImplementedError : public CError {
 public:
  explicit CNotImplementedError(const String& function);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A file whose content cannot be used. Domain "IO", code InvalidData, so that
// the kind survives storing even though the class does not.
class ZEL_API CFileCorruptedError : public CError {
 public:
  // "The file is corrupted."
  CFileCorruptedError();
  // "The file '<path>' is corrupted."
  explicit CFileCorruptedError(const String& path);
  // The stream's URI (readable form) as the path; "The file is corrupted."
  // when the stream is null, has no URI or cannot tell. Defined with streams.
  explicit CFileCorruptedError(IInStream* stream);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A failed checked down-cast (see checkedCast and throwCastError).
class ZEL_API CCastError : public CError {
 public:
  // Either argument may be null.
  CCastError(const IBase* object, const std::type_info* target);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// "Socket error: " + a text for the WinSock code, or "unknown error (<code>)".
// WinSock codes are Windows system error codes, so the domain is "sys" and
// the code the WinSock code, on every platform.
class ZEL_API CSocketError : public CError {
 public:
  explicit CSocketError(int winsockCode);
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A standard exception turned into an error: its what() text, domain
// "STDEXC", code -1.
class ZEL_API CStdExceptionError : public CError {
 public:
  explicit CStdExceptionError(const std::exception& exception);

  // A clone when exception is a CError, otherwise a CStdExceptionError.
  static P<CError> exceptionToError(const std::exception& exception);
  // Converts the exception being handled; call only inside a catch block.
  // Exceptions not derived from std::exception, and a call outside any
  // handler, give a CError "Unknown exception.".
  static P<CError> exceptionToError();
  static const String& errorCodeDomain();  // "STDEXC"

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// Thread failures. From a wxThreadError: domain "wxThread" with the value as
// code. From another error (a thread's run that ended in an error): that
// error's message, domain, code, parameters and cause.
class ZEL_API CThreadError : public CError {
 public:
  explicit CThreadError(wxThreadError error);
  explicit CThreadError(const CError& error);
  CThreadError(const CThreadError& other) = default;
  CThreadError& operator=(const CThreadError& other) = default;

  static const String& errorCodeDomain();  // "wxThread"

  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// An object asked to do something its state does not allow.
class ZEL_API CBadStateError : public CError {
 public:
  explicit CBadStateError(const String& text, const CProps& params = CProps());
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// Text that does not follow its syntax.
class ZEL_API CParseError : public CError {
 public:
  explicit CParseError(const String& text, const CProps& params = CProps());
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// A position (index, iterator) that does not denote an element.
class ZEL_API CBadCollPositionError : public CError {
 public:
  CBadCollPositionError();
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

// Thrown by the strict String conversions.
class ZEL_API CUnencodableStringError : public CError {
 public:
  CUnencodableStringError();
  P<CError> clone() const override;
  [[noreturn]] void throwClone() const override;
};

}  // namespace zel

#include "zel/core/error_predicates.h"
#include "zel/core/sys_error.h"
