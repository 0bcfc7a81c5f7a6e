#include "zel/core/type_name.h"

#include <cxxabi.h>

#include <cstdlib>
#include <memory>

namespace zel {

String getTypeName(const std::type_info& type) {
  int status = 0;
  std::unique_ptr<char, void (*)(void*)> demangled(
      abi::__cxa_demangle(type.name(), nullptr, nullptr, &status), std::free);
  return String(status == 0 && demangled ? demangled.get() : type.name());
}

}  // namespace zel
