#include "share_index.h"

#include <algorithm>

#include "paths.h"
#include "zel/core/error.h"
#include "zel/stream/buffer_stream.h"

namespace zeltool {

namespace {

const char kVolumeFolder[] = ".volume";

[[noreturn]] void refuse() {
  throw zel::CFileSystemError(zel::CFileSystemError::ProblemAccessDenied,
                              zel::CError("The list of shares is read-only."));
}

[[noreturn]] void notFound(const zel::CURI& uri) {
  zel::CProps params;
  params.set(zel::CIOError::paramURI(), uri.toString(true));
  throw zel::CFileSystemError(
      zel::CFileSystemError::ProblemNotFound,
      zel::CError("The file or folder does not exist.", zel::String(), -1, params));
}

}  // namespace

class CShareIndexFileSystem::CIterator : public zel::CBase, public zel::IFolderContentsIterator {
 public:
  CIterator(CShareIndexFileSystem& index) : m_index(&index) {}
  bool nextItem() override { return ++m_at < static_cast<int>(m_index->m_shares.size()); }
  zel::String getItemName() override { return current().name; }
  zel::P<zel::IFileInfoBase> getItemInfo() override { return m_index->folderInfo(&current()); }

 private:
  const Share& current() {
    if (m_at < 0 || m_at >= static_cast<int>(m_index->m_shares.size())) {
      throw zel::CBadStateError(
          "CShareIndexFileSystem::CIterator::getItemName called but iterator is not on an item.");
    }
    return m_index->m_shares[static_cast<size_t>(m_at)];
  }

  zel::P<CShareIndexFileSystem> m_index;
  int m_at = -1;
};

zel::CURI shareListURI() { return zel::CURI(zel::String(kShareScheme) + ":///"); }

CShareIndexFileSystem::CShareIndexFileSystem(zel::IFileSystem* local) : m_local(local) {}

CShareIndexFileSystem::~CShareIndexFileSystem() = default;

void CShareIndexFileSystem::addShare(const zel::String& name, const zel::CURI& root) {
  m_shares.push_back({name, root});
  std::sort(m_shares.begin(), m_shares.end(),
            [](const Share& a, const Share& b) { return a.name < b.name; });
}

CShareIndexFileSystem::Kind CShareIndexFileSystem::find(const zel::CURI& uri,
                                                        const Share** share) const {
  zel::TArray<zel::String> segments = uri.getSegments();
  std::vector<zel::String> names(segments.begin(), segments.end());
  while (!names.empty() && names.back().isEmpty()) names.pop_back();
  auto shareNamed = [&](const zel::String& name) -> const Share* {
    for (const Share& candidate : m_shares) {
      if (candidate.name == name) return &candidate;
    }
    return nullptr;
  };
  if (names.empty()) return Kind::List;
  if (names.size() == 1 && (*share = shareNamed(names[0]))) return Kind::Share;
  if (names.size() == 2 && names[0] == kVolumeFolder && (*share = shareNamed(names[1]))) {
    return Kind::Volume;
  }
  return Kind::None;
}

zel::P<zel::IFileInfoBase> CShareIndexFileSystem::folderInfo(const Share* share) {
  zel::P<zel::CFileInfoBase> info = zel::createObject<zel::CFileInfoBase>();
  if (share) {
    try {
      // What the share's folder says of itself (times, mode, owner), as
      // `ls /docs/..` would show it.
      info->construct(*m_local->getFileInfo(share->root, true));
    } catch (const zel::CError&) {
      // A share whose folder has gone is still listed, with nothing known.
    }
  } else {
    info->setReadOnly(true);
  }
  info->setType(zel::IFileInfoBase::TypeFolder);
  info->setSymLinkType(zel::IFileInfoBase::SymLinkNone);
  return info;
}

void CShareIndexFileSystem::setLoginManager(zel::IFileSystemLoginManager*) {}

zel::P<zel::IBackgroundOp> CShareIndexFileSystem::backgroundStore(const zel::CURI&, zel::int64,
                                                                  zel::IInStream*, bool,
                                                                  zel::IDoneListener*) {
  refuse();
}

zel::P<zel::IBackgroundOp> CShareIndexFileSystem::backgroundCreateFolder(const zel::CURI&, int,
                                                                         zel::IDoneListener*) {
  refuse();
}

zel::P<zel::IBackgroundOp> CShareIndexFileSystem::backgroundMoveFileOrFolder(const zel::CURI&,
                                                                             const zel::CURI&, bool,
                                                                             zel::IDoneListener*) {
  refuse();
}

zel::P<zel::IBackgroundOp> CShareIndexFileSystem::backgroundDeleteFile(const zel::CURI&,
                                                                       zel::IDoneListener*) {
  refuse();
}

zel::P<zel::IFileInfoBase> CShareIndexFileSystem::getFileInfo(const zel::CURI& uri, bool) {
  const Share* share = nullptr;
  switch (find(uri, &share)) {
    case Kind::List:
      return folderInfo(nullptr);
    case Kind::Share:
      return folderInfo(share);
    default:
      notFound(uri);
  }
}

zel::P<zel::IFileMetaModifier> CShareIndexFileSystem::createMetaModifier(const zel::CURI&, bool) {
  refuse();
}

zel::int64 CShareIndexFileSystem::getFileSectorSize(const zel::CURI& uri) {
  const Share* share = nullptr;
  if (find(uri, &share) == Kind::None) notFound(uri);
  return 512;
}

zel::P<zel::IFolderContentsIterator> CShareIndexFileSystem::getFolderContents(
    const zel::CURI& uri) {
  const Share* share = nullptr;
  if (find(uri, &share) != Kind::List) notFound(uri);
  return zel::createObject<CIterator>(*this);
}

zel::P<zel::IIOStream> CShareIndexFileSystem::createStream(const zel::CURI& uri,
                                                           zel::IIOStream::Access access,
                                                           zel::TFlags<zel::IIOStream::Flags>) {
  const Share* share = nullptr;
  if (find(uri, &share) != Kind::Volume) notFound(uri);
  if (access != zel::IIOStream::AccessRead) refuse();
  const VolumeSpace space = getVolumeSpace(share->root.toNativePath().toString());
  zel::CProps props;
  props.setInt64("total", space.total);
  props.setInt64("free", space.free);
  props.setInt64("available", space.available);
  const std::string text = props.toString().toStdUTF8();
  return zel::createObject<zel::CBufferStream>(text.data(), text.size(), true);
}

zel::P<zel::IIOStream> CShareIndexFileSystem::createSubDataStream(
    const zel::CURI&, const zel::String&, zel::IIOStream::Access,
    zel::TFlags<zel::IIOStream::Flags>) {
  refuse();
}

void CShareIndexFileSystem::createFolder(const zel::CURI&, int) { refuse(); }
bool CShareIndexFileSystem::ensureFolderExists(const zel::CURI&, int) { refuse(); }
void CShareIndexFileSystem::ensureFileExists(const zel::CURI&) { refuse(); }
void CShareIndexFileSystem::createFileHardLink(const zel::CURI&, const zel::CURI&) { refuse(); }
void CShareIndexFileSystem::createFolderHardLink(const zel::CURI&, const zel::CURI&) { refuse(); }
void CShareIndexFileSystem::createFileSymLink(const zel::CURI&, const zel::CURI&) { refuse(); }
void CShareIndexFileSystem::createFolderSymLink(const zel::CURI&, const zel::CURI&) { refuse(); }

bool CShareIndexFileSystem::fileExists(const zel::CURI& uri) {
  const Share* share = nullptr;
  return find(uri, &share) == Kind::Volume;
}

bool CShareIndexFileSystem::folderExists(const zel::CURI& uri) {
  const Share* share = nullptr;
  const Kind kind = find(uri, &share);
  return kind == Kind::List || kind == Kind::Share;
}

bool CShareIndexFileSystem::pathExists(const zel::CURI& uri) {
  const Share* share = nullptr;
  return find(uri, &share) != Kind::None;
}

bool CShareIndexFileSystem::quickCheckFolderAccessible(const zel::CURI& uri) {
  return folderExists(uri);
}

bool CShareIndexFileSystem::isFolderEmpty(const zel::CURI& uri) {
  const Share* share = nullptr;
  if (find(uri, &share) != Kind::List) notFound(uri);
  return m_shares.empty();
}

void CShareIndexFileSystem::deleteFile(const zel::CURI&, bool) { refuse(); }
void CShareIndexFileSystem::deleteSymLink(const zel::CURI&) { refuse(); }
void CShareIndexFileSystem::deleteEmptyFolder(const zel::CURI&, bool) { refuse(); }
void CShareIndexFileSystem::unlinkFolder(const zel::CURI&) { refuse(); }

zel::CURI CShareIndexFileSystem::getVolumeRootPath(const zel::CURI&) { return shareListURI(); }

zel::CURI CShareIndexFileSystem::createUniqueFilename(const zel::CURI&, const zel::String&) {
  refuse();
}

zel::CURI CShareIndexFileSystem::createUniqueFolderName(const zel::CURI&, const zel::String&) {
  refuse();
}

void CShareIndexFileSystem::moveFileOrFolder(const zel::CURI&, const zel::CURI&, bool) { refuse(); }
void CShareIndexFileSystem::copyFile(const zel::CURI&, const zel::CURI&, bool) { refuse(); }

zel::int64 CShareIndexFileSystem::getFreeSpaceInFolder(const zel::CURI& uri) {
  const Share* share = nullptr;
  if (find(uri, &share) == Kind::None) notFound(uri);
  return 0;
}

zel::String CShareIndexFileSystem::getAccountOrUserNameUsedForAccess(const zel::CURI&) {
  return getUserName();
}

zel::P<zel::IFileSystem::CNativeMetaData> CShareIndexFileSystem::getNativeMetaData(
    const zel::CURI&, bool, const zel::String&) {
  refuse();
}

std::vector<zel::String> listShares(zel::IFileSystem& fs) {
  std::vector<zel::String> names;
  zel::P<zel::IFolderContentsIterator> it = fs.getFolderContents(shareListURI());
  while (it->nextItem()) names.push_back(it->getItemName());
  std::sort(names.begin(), names.end());
  return names;
}

std::optional<VolumeSpace> readVolumeSpace(zel::IFileSystem& fs, const zel::String& share) {
  try {
    const zel::CURI uri = shareListURI().append(kVolumeFolder).append(share);
    zel::P<zel::IIOStream> in =
        fs.createStream(uri, zel::IIOStream::AccessRead, zel::TFlags<zel::IIOStream::Flags>());
    char buffer[1024];
    const int got = in->readLax(buffer, sizeof(buffer));
    const zel::CProps props =
        zel::CProps::fromString(zel::String::fromUTF8(buffer, got > 0 ? got : 0));
    VolumeSpace space;
    space.total = props.getInt64("total", -1);
    space.free = props.getInt64("free", -1);
    space.available = props.getInt64("available", -1);
    if (space.total < 0) return std::nullopt;
    return space;
  } catch (const zel::CError&) {
    // Not a `zel serve` server, or one that cannot tell.
    return std::nullopt;
  }
}

}  // namespace zeltool
