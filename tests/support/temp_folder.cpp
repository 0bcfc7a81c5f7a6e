#include "temp_folder.h"

#include <wx/dir.h>
#include <wx/ffile.h>
#include <wx/filefn.h>
#include <wx/filename.h>
#include <wx/utils.h>

#include <atomic>
#include <stdexcept>

namespace zel::test {

CTempFolder::CTempFolder() {
  static std::atomic<int> counter{0};
  for (int attempt = 0; attempt < 100; ++attempt) {
    wxString name = wxString::Format("zel-test-%lu-%d", wxGetProcessId(), counter++);
    wxFileName dir(wxFileName::GetTempDir(), "");
    dir.AppendDir(name);
    if (wxFileName::Mkdir(dir.GetPath(), 0700)) {
      m_path = String(dir.GetPath());
      return;
    }
  }
  throw std::runtime_error("cannot create a temporary folder");
}

CTempFolder::~CTempFolder() {
  wxFileName::Rmdir(m_path.getWxString(), wxPATH_RMDIR_RECURSIVE);
}

String CTempFolder::file(const String& name) const {
  return String(wxFileName(m_path.getWxString(), name.getWxString()).GetFullPath());
}

std::string readFileBytes(const String& path) {
  wxFFile file(path.getWxString(), "rb");
  if (!file.IsOpened()) return std::string();
  std::string bytes(static_cast<size_t>(file.Length()), '\0');
  if (file.Read(bytes.data(), bytes.size()) != bytes.size()) return std::string();
  return bytes;
}

}  // namespace zel::test
