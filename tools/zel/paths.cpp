#include "paths.h"

#include <wx/filefn.h>
#include <wx/filename.h>

#include <random>
#include <vector>

#include "cli.h"

namespace zeltool {

namespace {

zel::String quoted(const zel::String& text) { return "'" + text + "'"; }

// A share name as the host of a URI: escaped like a segment, and ":" and "@"
// too, which would otherwise start a port or end user info.
zel::String shareHost(const zel::String& share) {
  return zel::CURI::escapeSegment(share).cloneReplace(":", "%3A").cloneReplace("@", "%40");
}

// "scheme:" with a scheme of at least two characters, as CURI requires (so
// that "C:\dir" is never taken for one).
bool hasScheme(const std::wstring& text) {
  const size_t colon = text.find(L':');
  if (colon == std::wstring::npos || colon < 2) return false;
  for (size_t i = 0; i < colon; ++i) {
    const wchar_t c = text[i];
    const bool alpha = (c >= L'a' && c <= L'z') || (c >= L'A' && c <= L'Z');
    const bool other = (c >= L'0' && c <= L'9') || c == L'+' || c == L'-' || c == L'.';
    if (!alpha && !(i > 0 && other)) return false;
  }
  return true;
}

CRemotePath fromShortForm(const zel::String& text) {
  const std::wstring wide = text.toStdWString();
  std::vector<std::wstring> segments;
  size_t start = 1;
  while (start <= wide.size()) {
    size_t end = wide.find(L'/', start);
    if (end == std::wstring::npos) end = wide.size();
    const std::wstring segment = wide.substr(start, end - start);
    if (segment == L"..") {
      if (!segments.empty()) segments.pop_back();
    } else if (!segment.empty() && segment != L".") {
      segments.push_back(segment);
    }
    start = end + 1;
  }
  CRemotePath path;
  path.written = text;
  if (segments.empty()) {
    path.uri = zel::CURI(zel::String(kShareScheme) + ":///");
    return path;
  }
  path.share = zel::String(segments[0]);
  path.isShareRoot = segments.size() == 1;
  path.endsWithSlash = wide.back() == L'/' || wide.substr(wide.size() - 2) == L"/.";
  zel::CURI uri(zel::String(kShareScheme) + "://" + shareHost(path.share) + "/");
  for (size_t i = 1; i < segments.size(); ++i) uri = uri.append(zel::String(segments[i]));
  if (path.endsWithSlash && !path.isShareRoot) uri = uri.append(zel::String());
  path.uri = uri;
  return path;
}

CRemotePath fromURI(const zel::String& text) {
  CRemotePath path;
  path.written = text;
  try {
    path.uri = zel::CURI(text);
  } catch (const zel::CError&) {
    // Most often a name with "%" or "#" written into a URI by hand.
    throw CUsageError(quoted(text) +
                      ": not a valid URI (to give names as they are, write /SHARE/path)");
  }
  // "zel://NAME" names the share's root folder, as "zel://NAME/" does.
  if (path.uri.getPath().isEmpty() && path.uri.hasAuthority()) {
    path.uri = zel::CURI(path.uri.toString(true) + "/");
  }
  path.share = path.uri.getDecodedHost();
  const std::wstring uriPath = path.uri.getPath().toStdWString();
  path.isShareRoot = !path.share.isEmpty() && uriPath == L"/";
  path.endsWithSlash = !uriPath.empty() && uriPath.back() == L'/';
  return path;
}

}  // namespace

CRemotePath CRemotePath::child(const zel::String& name) const {
  CRemotePath result;
  const std::wstring text = written.toStdWString();
  result.written = written + (!text.empty() && text.back() == L'/' ? "" : "/") + name;
  if (isShareList()) {
    result.share = name;
    result.isShareRoot = true;
    result.uri = zel::CURI(zel::String(kShareScheme) + "://" + shareHost(name) + "/");
  } else {
    result.share = share;
    result.uri = uri.append(name);
  }
  return result;
}

CRemotePath parseRemotePath(const zel::String& text) {
  const std::wstring wide = text.toStdWString();
  if (!wide.empty() && wide[0] == L'/') return fromShortForm(text);
  if (hasScheme(wide)) return fromURI(text);
  throw CUsageError(quoted(text) +
                    ": not a remote path (write /SHARE/path, or a URI such as zel://SHARE/path)");
}

bool isStandardStream(const zel::String& path) { return path == "-"; }

zel::String absoluteLocalPath(const zel::String& path) {
  if (isStandardStream(path) || wxFileName(path.getWxString()).IsAbsolute()) return path;
  return joinLocalPath(wxGetCwd(), path);
}

zel::String localFileName(const zel::String& path) {
  if (isStandardStream(path)) return zel::String();
  return wxFileName(path.getWxString()).GetFullName();
}

bool isLocalFolder(const zel::String& path) {
  return !isStandardStream(path) && wxDirExists(path.getWxString());
}

zel::String joinLocalPath(const zel::String& folder, const zel::String& name) {
  const wxString text = folder.getWxString();
  if (!text.empty() && wxFileName::IsPathSeparator(text.Last())) return folder + name;
  return folder + zel::String(wxString(wxFileName::GetPathSeparator())) + name;
}

zel::String temporaryNameFor(const zel::String& name) {
  std::random_device random;
  char suffix[16];
  std::snprintf(suffix, sizeof(suffix), "%08x", static_cast<unsigned>(random()));
  return "." + name + ".zel-" + suffix + ".part";
}

}  // namespace zeltool
