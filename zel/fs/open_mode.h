// How the access and flags of IFileSystem::createStream and
// createSubDataStream become a platform open mode.
//
// Every implementation accepts and refuses the same combinations, so the
// decision is made here once, before anything is touched. The result names
// the four creation dispositions both platforms share (Windows CreateFileW
// OPEN_EXISTING / OPEN_ALWAYS / CREATE_NEW / CREATE_ALWAYS; POSIX open with
// no O_CREAT / O_CREAT / O_CREAT|O_EXCL / O_CREAT|O_TRUNC).
//
//   access      flags                                         disposition
//   read        FlagTruncate (with anything)                  refused
//   read        FlagAlwaysCreateIfNotExist                    OpenAlways
//   read        FlagAlwaysCreateIfNotExist + FailIfExists     CreateNew
//   read        FlagFailIfAlreadyExists alone                 refused
//   read        neither                                       OpenExisting
//   read/write  FlagFailIfAlreadyExists (with anything)       CreateNew
//   read/write  FlagTruncate                                  CreateAlways
//   read/write  otherwise                                     OpenAlways
//
// With write access a missing file is thus always created;
// FlagAlwaysCreateIfNotExist matters only for reading. FlagExclusive is about
// sharing, not creation, and never changes the disposition. Any access value
// but AccessRead counts as read and write.
#pragma once

#include "zel/core/export.h"
#include "zel/core/flags.h"
#include "zel/stream/stream.h"

namespace zel {

enum class OpenDisposition {
  OpenExisting,  // fail when the file is missing
  OpenAlways,    // open, creating the file when it is missing
  CreateNew,     // create; fail when the file exists
  CreateAlways,  // create, or empty an existing file
};

// Throws CInvalidArgError (function "CFileStream::getWindowsOpenType") for
// the two refused combinations above.
ZEL_API OpenDisposition getOpenDisposition(IIOStream::Access access,
                                           TFlags<IIOStream::Flags> flags);

// True for every access value that opens for writing (all but AccessRead).
inline bool isWriteAccess(IIOStream::Access access) { return access != IIOStream::AccessRead; }

}  // namespace zel
