#include "zel/util/system_info.h"

#include <wx/version.h>

namespace zel {

String getWxVersionString() {
  return String(wxString::Format("wxWidgets %d.%d.%d", wxMAJOR_VERSION, wxMINOR_VERSION,
                                 wxRELEASE_NUMBER));
}

}  // namespace zel
