// The list of shares of a `zel serve` server, published next to the shares
// at zel:/// (the empty authority), which no share can take:
//   - listing zel:/// gives one folder per share, named as the share;
//   - zel:///.volume/NAME reads as the sizes of the volume holding share
//     NAME, in the text form of CProps with the keys "total", "free" (for
//     anyone) and "available" (for the server's user), in bytes.
// Everything else there is refused (read-only). `zel fs ls /` and `zel fs
// df` read it; a server that publishes no such list answers "no such share".
#pragma once

#include <optional>
#include <vector>

#include "platform.h"
#include "zel/core/base.h"
#include "zel/fs/file_system.h"

namespace zeltool {

class CShareIndexFileSystem : public zel::CBase, public zel::IFileSystem {
 public:
  // local serves the shares' folders; each share is added before serving.
  explicit CShareIndexFileSystem(zel::IFileSystem* local);
  ~CShareIndexFileSystem() override;
  void addShare(const zel::String& name, const zel::CURI& root);

  void setLoginManager(zel::IFileSystemLoginManager* loginManager) override;
  zel::P<zel::IBackgroundOp> backgroundStore(const zel::CURI& uri, zel::int64 length,
                                             zel::IInStream* source, bool overwrite,
                                             zel::IDoneListener* listener) override;
  zel::P<zel::IBackgroundOp> backgroundCreateFolder(const zel::CURI& uri, int flags,
                                                    zel::IDoneListener* listener) override;
  zel::P<zel::IBackgroundOp> backgroundMoveFileOrFolder(const zel::CURI& from, const zel::CURI& to,
                                                        bool overwrite,
                                                        zel::IDoneListener* listener) override;
  zel::P<zel::IBackgroundOp> backgroundDeleteFile(const zel::CURI& uri,
                                                  zel::IDoneListener* listener) override;
  zel::P<zel::IFileInfoBase> getFileInfo(const zel::CURI& uri, bool followSymLinks) override;
  zel::P<zel::IFileMetaModifier> createMetaModifier(const zel::CURI& uri,
                                                    bool followSymLinks) override;
  zel::int64 getFileSectorSize(const zel::CURI& uri) override;
  zel::P<zel::IFolderContentsIterator> getFolderContents(const zel::CURI& uri) override;
  zel::P<zel::IIOStream> createStream(const zel::CURI& uri, zel::IIOStream::Access access,
                                      zel::TFlags<zel::IIOStream::Flags> flags) override;
  zel::P<zel::IIOStream> createSubDataStream(const zel::CURI& uri, const zel::String& name,
                                             zel::IIOStream::Access access,
                                             zel::TFlags<zel::IIOStream::Flags> flags) override;
  void createFolder(const zel::CURI& uri, int flags) override;
  bool ensureFolderExists(const zel::CURI& uri, int flags) override;
  void ensureFileExists(const zel::CURI& uri) override;
  void createFileHardLink(const zel::CURI& link, const zel::CURI& target) override;
  void createFolderHardLink(const zel::CURI& link, const zel::CURI& target) override;
  void createFileSymLink(const zel::CURI& link, const zel::CURI& target) override;
  void createFolderSymLink(const zel::CURI& link, const zel::CURI& target) override;
  bool fileExists(const zel::CURI& uri) override;
  bool folderExists(const zel::CURI& uri) override;
  bool pathExists(const zel::CURI& uri) override;
  bool quickCheckFolderAccessible(const zel::CURI& uri) override;
  bool isFolderEmpty(const zel::CURI& uri) override;
  void deleteFile(const zel::CURI& uri, bool force) override;
  void deleteSymLink(const zel::CURI& uri) override;
  void deleteEmptyFolder(const zel::CURI& uri, bool force) override;
  void unlinkFolder(const zel::CURI& uri) override;
  zel::CURI getVolumeRootPath(const zel::CURI& uri) override;
  zel::CURI createUniqueFilename(const zel::CURI& folder, const zel::String& name) override;
  zel::CURI createUniqueFolderName(const zel::CURI& folder, const zel::String& name) override;
  void moveFileOrFolder(const zel::CURI& from, const zel::CURI& to, bool overwrite) override;
  void copyFile(const zel::CURI& from, const zel::CURI& to, bool overwrite) override;
  zel::int64 getFreeSpaceInFolder(const zel::CURI& uri) override;
  zel::String getAccountOrUserNameUsedForAccess(const zel::CURI& uri) override;
  zel::P<CNativeMetaData> getNativeMetaData(const zel::CURI& uri, bool followSymLinks,
                                            const zel::String& which) override;

 private:
  struct Share {
    zel::String name;
    zel::CURI root;
  };
  class CIterator;
  enum class Kind { List, Share, Volume, None };
  // What uri names here; share is set for Share and Volume.
  Kind find(const zel::CURI& uri, const Share** share) const;
  zel::P<zel::IFileInfoBase> folderInfo(const Share* share);

  zel::P<zel::IFileSystem> m_local;
  std::vector<Share> m_shares;
};

// The index URI: zel:///
zel::CURI shareListURI();

// Client side. The share names, sorted.
std::vector<zel::String> listShares(zel::IFileSystem& fs);
// The sizes of share's volume; nothing when the server does not tell.
std::optional<VolumeSpace> readVolumeSpace(zel::IFileSystem& fs, const zel::String& share);

}  // namespace zeltool
