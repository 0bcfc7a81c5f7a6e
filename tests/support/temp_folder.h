// A scratch folder for one test, removed with everything in it at the end.
#pragma once

#include <string>

#include "zel/core/string.h"

namespace zel::test {

class CTempFolder {
 public:
  CTempFolder();
  ~CTempFolder();
  CTempFolder(const CTempFolder&) = delete;
  CTempFolder& operator=(const CTempFolder&) = delete;

  const String& getPath() const { return m_path; }
  // path + separator + name
  String file(const String& name) const;

 private:
  String m_path;
};

// The whole content of a file as bytes; empty when it cannot be read.
std::string readFileBytes(const String& path);

}  // namespace zel::test
