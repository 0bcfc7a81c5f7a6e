#include "zel/fs/open_mode.h"

#include "zel/core/error.h"

namespace zel {

OpenDisposition getOpenDisposition(IIOStream::Access access, TFlags<IIOStream::Flags> flags) {
  // The refusals keep the name the Windows stream has always reported, so
  // that callers matching on it see the same text on every platform.
  static const char* const kFunction = "CFileStream::getWindowsOpenType";
  const bool failIfExists = flags.has(IIOStream::FlagFailIfAlreadyExists);
  if (!isWriteAccess(access)) {
    if (flags.has(IIOStream::FlagTruncate)) {
      throw CInvalidArgError(kFunction,
                             "FlagTruncate can only be used if write access is requested.");
    }
    if (flags.has(IIOStream::FlagAlwaysCreateIfNotExist)) {
      return failIfExists ? OpenDisposition::CreateNew : OpenDisposition::OpenAlways;
    }
    if (failIfExists) {
      throw CInvalidArgError(kFunction,
                             "FlagFailIfAlreadyExists can only be used with read only access if "
                             "FlagAlwaysCreateIfNotExist is also set.");
    }
    return OpenDisposition::OpenExisting;
  }
  if (failIfExists) return OpenDisposition::CreateNew;
  if (flags.has(IIOStream::FlagTruncate)) return OpenDisposition::CreateAlways;
  return OpenDisposition::OpenAlways;
}

}  // namespace zel
