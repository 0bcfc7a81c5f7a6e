#include <gtest/gtest.h>

#include "zel/core/error.h"
#include "zel/fs/file_system.h"

namespace zel {
namespace {

using Info = IFileInfoBase;

// Fills every value with something other than its default.
void fillAll(CFileInfoBase& info) {
  info.setType(Info::TypeFolder);
  info.setSize(int64{1} << 40);
  info.setSymLinkType(Info::SymLinkFolder);
  info.setSymLinkFlavor(Info::SymLinkFlavorWindowsJunction);
  info.setSymLinkTargetPath(L"C:\\target \u00e9");
  info.setCreatedTime(CTime(1));
  info.setDataModifiedTime(CTime(2));
  info.setMetaModifiedTime(CTime(-3));
  info.setID(-7);
  info.setTemporaryVolumeID(0x123456789ll);
  info.setHardLinked(true);
  info.setReadOnly(true);
  info.setHidden(true);
  info.setEncrypted(true);
  info.setCompressed(true);
  info.setSparse(true);
  info.setIndexable(true);
  info.setHasWindowsInfo(true);
  info.setWindowsSecurityString("O:BAG:SYD:(A;;FA;;;SY)");
  info.setWindowsAttributes(0x80000000u);
  info.setHasUnixInfo(true);
  info.setUnixMode(040755);
  info.setUnixUserID(1000);
  info.setUnixUserName("alice");
  info.setUnixGroupID(4294967295ll);
  info.setUnixGroupName("staff");
}

void expectAllFilled(IFileInfoBase& info) {
  EXPECT_EQ(info.getType(), Info::TypeFolder);
  EXPECT_EQ(info.getSize(), int64{1} << 40);
  EXPECT_EQ(info.getSymLinkType(), Info::SymLinkFolder);
  EXPECT_EQ(info.getSymLinkFlavor(), Info::SymLinkFlavorWindowsJunction);
  EXPECT_EQ(info.getSymLinkTargetPath(), String(L"C:\\target \u00e9"));
  EXPECT_EQ(info.getCreatedTime(), CTime(1));
  EXPECT_EQ(info.getDataModifiedTime(), CTime(2));
  EXPECT_EQ(info.getMetaModifiedTime(), CTime(-3));
  EXPECT_EQ(info.tryGetID(), -7);
  EXPECT_EQ(info.tryGetTemporaryVolumeID(), 0x123456789ll);
  EXPECT_TRUE(info.isHardLinked());
  EXPECT_TRUE(info.isReadOnly());
  EXPECT_TRUE(info.isHidden());
  EXPECT_TRUE(info.isEncrypted());
  EXPECT_TRUE(info.isCompressed());
  EXPECT_TRUE(info.isSparse());
  EXPECT_TRUE(info.isIndexable());
  EXPECT_TRUE(info.hasWindowsInfo());
  EXPECT_EQ(info.getWindowsSecurityString(), "O:BAG:SYD:(A;;FA;;;SY)");
  EXPECT_EQ(info.getWindowsAttributes(), 0x80000000u);
  EXPECT_TRUE(info.hasUnixInfo());
  EXPECT_EQ(info.getUnixMode(), 040755);
  EXPECT_EQ(info.getUnixUserID(), 1000);
  EXPECT_EQ(info.getUnixUserName(), "alice");
  EXPECT_EQ(info.getUnixGroupID(), 4294967295ll);
  EXPECT_EQ(info.getUnixGroupName(), "staff");
}

TEST(FileInfoTest, Defaults) {
  P<CFileInfoBase> info = createObject<CFileInfoBase>();
  EXPECT_EQ(info->getType(), Info::TypeUnknown);
  EXPECT_EQ(info->getSize(), 0);
  EXPECT_EQ(info->getSymLinkType(), Info::SymLinkNone);
  EXPECT_EQ(info->getSymLinkFlavor(), Info::SymLinkFlavorNone);
  EXPECT_FALSE(info->getCreatedTime().isValid());
  EXPECT_FALSE(info->getDataModifiedTime().isValid());
  EXPECT_FALSE(info->getMetaModifiedTime().isValid());
  EXPECT_EQ(info->tryGetID(), 0);
  EXPECT_FALSE(info->isReadOnly());
  EXPECT_FALSE(info->hasWindowsInfo());
  EXPECT_FALSE(info->hasUnixInfo());
  EXPECT_TRUE(info->getUnixUserName().isEmpty());
  EXPECT_EQ(info->getCachedInfoMask(), 0u);
}

TEST(FileInfoTest, SettersStoreValuesAndMarkThemCached) {
  P<CFileInfoBase> info = createObject<CFileInfoBase>();
  fillAll(*info);
  expectAllFilled(*info);
  // Bit n-1 for operation n, 1 to 26 but the two has*Info flags (18, 21).
  uint64 expected = 0;
  for (int operation = 1; operation <= 26; ++operation) {
    if (operation != 18 && operation != 21) expected |= uint64{1} << (operation - 1);
  }
  EXPECT_EQ(info->getCachedInfoMask(), expected);

  P<CFileInfoBase> one = createObject<CFileInfoBase>();
  one->setSize(5);
  one->setUnixGroupName("g");
  EXPECT_EQ(one->getCachedInfoMask(), Info::CachedSize | Info::CachedUnixGroupName);
  // A value set back to its default is still a gathered value.
  one->setReadOnly(false);
  EXPECT_EQ(one->getCachedInfoMask(),
            Info::CachedSize | Info::CachedUnixGroupName | Info::CachedReadOnly);
  one->setCachedInfoMask(Info::CachedType);
  EXPECT_EQ(one->getCachedInfoMask(), Info::CachedType);
  EXPECT_EQ(one->getSize(), 5);  // the mask does not touch values
}

// An information object that works its names out when asked, as a local
// implementation may.
class CLazyInfo : public CFileInfoBase {
 public:
  int nameQueries = 0;
  String getUnixUserName() override {
    ++nameQueries;
    return "resolved-user";
  }
};

TEST(FileInfoTest, ConstructCopiesEverything) {
  P<CFileInfoBase> source = createObject<CFileInfoBase>();
  fillAll(*source);
  source->setCachedInfoMask(0xABCDEFull);
  P<CFileInfo> copy = createObject<CFileInfo>(CURI(String("file:///tmp/x")));
  copy->construct(*source);
  expectAllFilled(*copy);
  EXPECT_EQ(copy->getCachedInfoMask(), 0xABCDEFull);
  EXPECT_EQ(copy->getURI().toString(), "file:///tmp/x");

  // Construct replaces what was there, defaults included.
  P<CFileInfoBase> blank = createObject<CFileInfoBase>();
  copy->construct(*blank);
  EXPECT_EQ(copy->getType(), Info::TypeUnknown);
  EXPECT_FALSE(copy->isHidden());
  EXPECT_TRUE(copy->getWindowsSecurityString().isEmpty());
  EXPECT_EQ(copy->getCachedInfoMask(), 0u);

  // Values answered on demand are asked through the interface.
  P<CLazyInfo> lazy = createObject<CLazyInfo>();
  const IFileInfoBase& asConst = *lazy;
  copy->construct(asConst);
  EXPECT_EQ(lazy->nameQueries, 1);
  EXPECT_EQ(copy->getUnixUserName(), "resolved-user");
}

TEST(FileInfoTest, FileInfoIsUsableThroughBothInterfaces) {
  P<CFileInfo> info = createObject<CFileInfo>();
  info->setType(Info::TypeFile);
  info->setURI(CURI(String("file:///a/b")));
  P<IFileInfo> asInfo = info;
  P<IFileInfoBase> asBase = info;
  EXPECT_EQ(asInfo->getURI().toString(), "file:///a/b");
  EXPECT_EQ(asBase->getType(), Info::TypeFile);
  EXPECT_EQ(dynamicCast<IFileInfo>(asBase).get(), asInfo.get());
}

TEST(FileInfoTest, NativeMetaDataIsACountedByteBlock) {
  const unsigned char bytes[] = {0, 1, 2, 0xFF};
  P<IFileSystem::CNativeMetaData> data =
      createObject<IFileSystem::CNativeMetaData>(bytes, sizeof(bytes));
  P<IFileSystem::CNativeMetaData> shared = data;
  ASSERT_EQ(shared->getSize(), 4u);
  EXPECT_EQ((*shared)[3], 0xFF);
  EXPECT_EQ(data->getRefCount(), 2);
}

TEST(FileSystemTest, CreateFolderFlagsCheck) {
  EXPECT_NO_THROW(checkCreateFolderFlags(0, "f"));
  EXPECT_NO_THROW(checkCreateFolderFlags(IFileSystem::CreateFolderParents, "f"));
  EXPECT_NO_THROW(checkCreateFolderFlags(IFileSystem::kCreateFolderKnownFlags, "f"));
  for (int bad : {0x4, 0x100, -1, IFileSystem::CreateFolderParents | 0x40000000}) {
    try {
      checkCreateFolderFlags(bad, "CFileSystem::createFolder");
      ADD_FAILURE() << "accepted " << bad;
    } catch (const CInvalidArgError& e) {
      EXPECT_EQ(e.getMessage(),
                "Invalid argument passed to "
                "'CFileSystem::createFolder': Unknown folder "
                "creation flags.");
      EXPECT_EQ(e.getParams().get("flags"), String::fromInt64(bad));
    }
  }
}

}  // namespace
}  // namespace zel
