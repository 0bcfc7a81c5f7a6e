#include "failure.h"

namespace zeltool {

namespace {

using Problem = zel::CFileSystemError::Problem;

// Messages of the cross-process file system server that have a plainer
// wording for users.
const wchar_t kNoShareMessage[] = L"Proxy URI does not reference a shared filesystem area.";

// "No such file or directory." -> "no such file or directory"; an all-capital
// first word ("URI") keeps its case.
zel::String plainMessage(const zel::String& message) {
  std::wstring text = message.toStdWString();
  while (!text.empty() && (text.back() == L'.' || text.back() == L' ')) text.pop_back();
  if (text.size() >= 2 && text[0] >= L'A' && text[0] <= L'Z' &&
      !(text[1] >= L'A' && text[1] <= L'Z')) {
    text[0] = static_cast<wchar_t>(text[0] - L'A' + L'a');
  }
  return text.empty() ? zel::String("failed") : zel::String(text);
}

std::function<bool()> g_isConnectionLost;

bool holdsServerPlace(const zel::String& key, const zel::String& value) {
  return key == "rootPath" || value.startsWithNoCase(L"file:");
}

}  // namespace

CConnectionLostCheck::CConnectionLostCheck(std::function<bool()> isLost) {
  g_isConnectionLost = std::move(isLost);
}

CConnectionLostCheck::~CConnectionLostCheck() { g_isConnectionLost = nullptr; }

CFailure::CFailure(const zel::String& subject, const zel::CError& error)
    : m_subject(subject), m_error(error.clone()) {}

CFailure::CFailure(const zel::String& subject, const zel::String& text)
    : m_subject(subject), m_text(text) {}

zel::String CFailure::getText() const { return m_error ? describeError(*m_error) : m_text; }

Problem classifyProblem(const zel::CError& error) {
  for (const zel::CError* at = &error; at; at = at->getCause().get()) {
    const Problem problem = zel::CFileSystemError::getProblem(at->getParams());
    if (problem != zel::CFileSystemError::ProblemUnknown) return problem;
  }
  for (const zel::CError* at = &error; at; at = at->getCause().get()) {
    if (zel::isFileOrFolderNotFoundError(*at)) return zel::CFileSystemError::ProblemNotFound;
    if (zel::isFileOrFolderAlreadyExistsError(*at))
      return zel::CFileSystemError::ProblemAlreadyExists;
    if (zel::isOutOfSpaceError(*at)) return zel::CFileSystemError::ProblemOutOfSpace;
    if (zel::isAccessDeniedError(*at)) return zel::CFileSystemError::ProblemAccessDenied;
    if (zel::couldBeNetworkConnectionProblemError(*at)) {
      return zel::CFileSystemError::ProblemNetworkConnection;
    }
    if (zel::couldBeUnsupportedError(*at)) return zel::CFileSystemError::ProblemUnsupported;
  }
  return zel::CFileSystemError::ProblemUnknown;
}

zel::String describeError(const zel::CError& error) {
  if (g_isConnectionLost && g_isConnectionLost()) return "connection to the server lost";
  if (error.getMessage() == kNoShareMessage) return "no such share";
  switch (classifyProblem(error)) {
    case zel::CFileSystemError::ProblemNotFound:
      return "no such file or folder";
    case zel::CFileSystemError::ProblemAlreadyExists:
      return "already exists";
    case zel::CFileSystemError::ProblemOutOfSpace:
      return "no space left";
    case zel::CFileSystemError::ProblemAccessDenied:
      return "permission denied";
    case zel::CFileSystemError::ProblemNetworkConnection:
      return "connection failed";
    default:
      break;
  }
  for (const zel::CError* at = &error; at; at = at->getCause().get()) {
    if (zel::isFolderNotEmptyError(*at)) return "folder not empty";
  }
  // Invalid names, unsupported requests, wrong types and the rest: the
  // message says which.
  return plainMessage(error.getMessage());
}

zel::String describeErrorVerbose(const zel::CError& error) {
  zel::String internal;
  auto add = [&](const zel::String& piece) {
    internal += (internal.isEmpty() ? "" : ", ") + piece;
  };
  if (error.hasErrorCode()) {
    add(error.getErrorCodeDomain() + " " + zel::String::fromInt64(error.getErrorCode()));
  } else if (error.getErrorCode() != -1) {
    add(zel::String::fromInt64(error.getErrorCode()));
  }
  const zel::CProps& params = error.getParams();
  for (int i = 0; i < params.getCount(); ++i) {
    if (holdsServerPlace(params.getKey(i), params.getValue(i))) continue;
    add(params.getKey(i) + "='" + params.getValue(i) + "'");
  }
  if (zel::PC<zel::CError> cause = error.getCause()) {
    internal += (internal.isEmpty() ? "(" : " (") + describeErrorVerbose(*cause) + ")";
  }
  return internal.isEmpty() ? error.getMessage() : error.getMessage() + " [" + internal + "]";
}

namespace {

void report(const std::string& program, const COutput& out, const zel::String& subject,
            const zel::String& text, const zel::CError* error) {
  std::string line = program + ": ";
  if (!subject.isEmpty()) line += toDisplay(subject) + ": ";
  line += toDisplay(text);
  std::fprintf(stderr, "%s\n", line.c_str());
  if (out.verbose && error) {
    std::fprintf(stderr, "  %s\n", toDisplay(describeErrorVerbose(*error)).c_str());
  }
}

}  // namespace

void reportFailure(const std::string& program, const COutput& out, const CFailure& failure) {
  report(program, out, failure.getSubject(), failure.getText(), failure.getError());
}

void reportError(const std::string& program, const COutput& out, const zel::CError& error) {
  report(program, out, zel::String(), describeError(error), &error);
}

}  // namespace zeltool
