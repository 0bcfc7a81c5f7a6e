// Failures as the tool reports them: one line on standard error,
// "zel fs: /docs/nosuch: no such file or folder": the program, the argument
// as the user wrote it and what went wrong, never where things lie on the
// server. --verbose adds the whole description with its causes.
//
// The same fault reads the same from every command: errors are classified
// by their file-system problem, or by the library's error predicates where
// a library call set none.
#pragma once

#include <exception>
#include <functional>
#include <string>

#include "output.h"
#include "zel/core/error.h"

namespace zeltool {

// A failure of a command on one of its arguments (the subject); exit code 1.
class CFailure : public std::exception {
 public:
  CFailure(const zel::String& subject, const zel::CError& error);
  // A failure the tool itself decided, described by text.
  CFailure(const zel::String& subject, const zel::String& text);
  const char* what() const noexcept override { return "failure"; }

  const zel::String& getSubject() const { return m_subject; }
  const zel::CError* getError() const { return m_error.get(); }
  zel::String getText() const;

 private:
  zel::String m_subject;
  zel::P<zel::CError> m_error;
  zel::String m_text;
};

// Runs action; a CError it throws becomes a CFailure on subject.
template <class Action>
auto onSubject(const zel::String& subject, Action&& action) -> decltype(action()) {
  try {
    return action();
  } catch (const zel::CError& e) {
    throw CFailure(subject, e);
  }
}

// While one lives, any failure after the server's connection has ended
// reads "connection to the server lost", whichever call noticed the end
// first (a write into a closed socket, a read that found the end of data).
class CConnectionLostCheck {
 public:
  explicit CConnectionLostCheck(std::function<bool()> isLost);
  ~CConnectionLostCheck();
  CConnectionLostCheck(const CConnectionLostCheck&) = delete;
  CConnectionLostCheck& operator=(const CConnectionLostCheck&) = delete;
};

// The problem of error or of the first of its causes that names one; else
// what the error predicates recognise; else ProblemUnknown.
zel::CFileSystemError::Problem classifyProblem(const zel::CError& error);
// The short text: a fixed text for the common problems ("no such file or
// folder", "permission denied" ...), else the error's message.
zel::String describeError(const zel::CError& error);
// The whole description with causes, as CError::getDesc() gives it, without
// parameters that name places on the server (file URIs, share roots).
zel::String describeErrorVerbose(const zel::CError& error);

// "PROGRAM: SUBJECT: TEXT" on standard error (no subject: "PROGRAM: TEXT");
// verbose adds the whole description on a second line.
void reportFailure(const std::string& program, const COutput& out, const CFailure& failure);
void reportError(const std::string& program, const COutput& out, const zel::CError& error);

}  // namespace zeltool
