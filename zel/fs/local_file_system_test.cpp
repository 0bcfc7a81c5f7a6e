#include "zel/fs/local_file_system.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "zel/core/error.h"
#include "zel/core/error_predicates.h"
#include "zel/fs/background_op_thread.h"
#include "zel/stream/buffer_stream.h"
#include "tests/support/odd_names.h"
#include "tests/support/temp_folder.h"

namespace zel {
namespace {

class LocalFileSystemTest : public ::testing::Test {
 protected:
  void SetUp() override { m_fs = createObject<CFileSystem>(); }
  void TearDown() override { m_fs->dispose(); }

  CURI uri(const String& name) const { return CURI::fromNativePath(CNativePath(m_temp.file(name))); }
  CURI folderURI() const { return CURI::fromNativePath(CNativePath(m_temp.getPath())); }

  void writeFile(const CURI& target, const std::string& bytes) {
    P<IIOStream> stream = m_fs->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagTruncate);
    stream->write(bytes.data(), static_cast<int>(bytes.size()));
    stream->close();
  }
  std::string readFile(const CURI& source) {
    P<IIOStream> stream = m_fs->createStream(source, IIOStream::AccessRead, TFlags<IIOStream::Flags>());
    std::string bytes(static_cast<size_t>(stream->getLength()), '\0');
    stream->read(bytes.data(), static_cast<int>(bytes.size()));
    return bytes;
  }

  test::CTempFolder m_temp;
  P<CFileSystem> m_fs;
};

// Runs body, expecting a CError, and hands it to check.
template <class Body, class Check>
void expectError(Body body, Check check) {
  try {
    body();
    ADD_FAILURE() << "no error thrown";
  } catch (const CError& e) {
    check(e);
  }
}

TEST_F(LocalFileSystemTest, OpenModeRefusalsTouchNothing) {
  CURI target = uri("refused.bin");
  EXPECT_THROW(m_fs->createStream(target, IIOStream::AccessRead, IIOStream::FlagTruncate), CInvalidArgError);
  EXPECT_THROW(m_fs->createStream(target, IIOStream::AccessRead, IIOStream::FlagFailIfAlreadyExists),
               CInvalidArgError);
  EXPECT_FALSE(m_fs->pathExists(target));
}

TEST_F(LocalFileSystemTest, OpenModeReadRows) {
  CURI target = uri("read.bin");
  // Neither flag: a missing file is not created.
  expectError([&] { m_fs->createStream(target, IIOStream::AccessRead, TFlags<IIOStream::Flags>()); },
              [&](const CError& e) {
                EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what();
                EXPECT_EQ(e.getParams().get("uri"), target.toString());
                EXPECT_EQ(e.getParams().get("action"), "CFileSystem::createStream");
              });
  EXPECT_FALSE(m_fs->pathExists(target));

  // AlwaysCreate: an empty file appears.
  P<IIOStream> stream = m_fs->createStream(target, IIOStream::AccessRead, IIOStream::FlagAlwaysCreateIfNotExist);
  EXPECT_EQ(stream->getLength(), 0);
  EXPECT_THROW(stream->write("x", 1), CIOError);
  stream->close();
  EXPECT_TRUE(m_fs->fileExists(target));

  // AlwaysCreate + FailIfExists on the existing file fails; on a new one creates.
  expectError([&] {
    m_fs->createStream(target, IIOStream::AccessRead,
                       {IIOStream::FlagAlwaysCreateIfNotExist, IIOStream::FlagFailIfAlreadyExists});
  }, [](const CError& e) { EXPECT_TRUE(isFileOrFolderAlreadyExistsError(e)) << e.what(); });
  CURI fresh = uri("fresh.bin");
  m_fs->createStream(fresh, IIOStream::AccessRead,
                     {IIOStream::FlagAlwaysCreateIfNotExist, IIOStream::FlagFailIfAlreadyExists})
      ->close();
  EXPECT_TRUE(m_fs->fileExists(fresh));

  // Plain read of an existing file sees its content.
  writeFile(target, "abc");
  EXPECT_EQ(readFile(target), "abc");
}

TEST_F(LocalFileSystemTest, OpenModeReadWriteRows) {
  CURI target = uri("rw.bin");
  // Otherwise: created when missing, kept when present.
  P<IIOStream> stream = m_fs->createStream(target, IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  stream->write("hello", 5);
  stream->close();
  stream = m_fs->createStream(target, IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  EXPECT_EQ(stream->getLength(), 5);
  stream->close();

  // Truncate empties an existing file.
  stream = m_fs->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagTruncate);
  EXPECT_EQ(stream->getLength(), 0);
  stream->close();

  // FailIfAlreadyExists refuses the existing file and leaves it alone.
  writeFile(target, "keep");
  EXPECT_THROW(m_fs->createStream(target, IIOStream::AccessReadWrite,
                                  {IIOStream::FlagFailIfAlreadyExists, IIOStream::FlagTruncate}),
               CError);
  EXPECT_EQ(readFile(target), "keep");
  m_fs->createStream(uri("new.bin"), IIOStream::AccessReadWrite, IIOStream::FlagFailIfAlreadyExists)->close();
  EXPECT_TRUE(m_fs->fileExists(uri("new.bin")));
  // Truncate also creates a missing file.
  m_fs->createStream(uri("trunc.bin"), IIOStream::AccessReadWrite, IIOStream::FlagTruncate)->close();
  EXPECT_TRUE(m_fs->fileExists(uri("trunc.bin")));
}

TEST_F(LocalFileSystemTest, ExclusiveOpensConflict) {
  CURI target = uri("exclusive.bin");
  writeFile(target, "x");
  P<IIOStream> first = m_fs->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagExclusive);
  expectError([&] { m_fs->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagExclusive); },
              [&](const CError& e) {
                EXPECT_TRUE(couldBeFileLockingError(e)) << e.what();
                EXPECT_EQ(e.getParams().get("uri"), target.toString());
              });
  first->close();
  m_fs->createStream(target, IIOStream::AccessReadWrite, IIOStream::FlagExclusive)->close();
}

TEST_F(LocalFileSystemTest, StreamReadsWritesSeeksAndResizes) {
  CURI target = uri("stream.bin");
  P<IIOStream> stream = m_fs->createStream(target, IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  EXPECT_EQ(stream->getPositionAlign(), 1);
  EXPECT_EQ(stream->getBufferAlign(), 1);
  stream->write("0123456789", 10);
  stream->seek(2);
  char buffer[16] = {};
  stream->read(buffer, 3);
  EXPECT_EQ(std::string(buffer, 3), "234");
  EXPECT_EQ(stream->getPosition(), 5);
  EXPECT_EQ(stream->readLax(buffer, 16), 5);
  EXPECT_TRUE(stream->isEndOfStream());
  EXPECT_THROW(stream->read(buffer, 1), CIOError);
  stream->setLength(4);
  EXPECT_EQ(stream->getLength(), 4);
  EXPECT_EQ(stream->getPosition(), 4);
  stream->flush();
  stream->close();
  stream->close();
  EXPECT_THROW(stream->getLength(), CIOError);
  EXPECT_EQ(readFile(target), "0123");
}

TEST_F(LocalFileSystemTest, RangeLockConflictFailsAtOnce) {
  CURI target = uri("locked.bin");
  writeFile(target, std::string(100, 'x'));
  P<IIOStream> first = m_fs->createStream(target, IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  P<IIOStream> second = m_fs->createStream(target, IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  P<IStreamLock> lock = first->lockRange(10, 20, IStreamBase::Exclusive);
  expectError([&] { second->lockRange(15, 5, IStreamBase::Exclusive); }, [&](const CError& e) {
    EXPECT_TRUE(couldBeFileLockingError(e)) << e.what();
    EXPECT_EQ(e.getParams().get("uri"), target.toString());
  });
  // A range outside the lock is free, and releasing the lock frees the range.
  P<IStreamLock> other = second->lockRange(50, 10, IStreamBase::Exclusive);
  lock = nullptr;
  P<IStreamLock> again = second->lockRange(15, 5, IStreamBase::Exclusive);
  // Shared locks coexist.
  P<IStreamLock> shared1 = first->lockRange(80, 5, IStreamBase::Shared);
  P<IStreamLock> shared2 = second->lockRange(80, 5, IStreamBase::Shared);
  // A lock may outlive its stream.
  second->close();
  again = nullptr;
  P<IStreamLock> afterClose = first->lockRange(15, 5, IStreamBase::Exclusive);
}

TEST_F(LocalFileSystemTest, EmptyFolderIterator) {
  CURI folder = uri("empty");
  m_fs->createFolder(folder, 0);
  P<IFolderContentsIterator> it = m_fs->getFolderContents(folder);
  EXPECT_FALSE(it->nextItem());
  expectError([&] { it->getItemName(); }, [](const CError& e) {
    EXPECT_EQ(e.getMessage(),
              "CFileSystem::CFolderContentsIterator::getItemName called but iterator is not on an item.");
  });
  EXPECT_THROW(it->getItemInfo(), CBadStateError);
  EXPECT_TRUE(m_fs->isFolderEmpty(folder));
}

TEST_F(LocalFileSystemTest, IteratorListsEntries) {
  m_fs->createFolder(uri("sub"), 0);
  writeFile(uri("a.txt"), "12345");
  P<IFolderContentsIterator> it = m_fs->getFolderContents(folderURI());
  int files = 0, folders = 0;
  while (it->nextItem()) {
    P<IFileInfoBase> info = it->getItemInfo();
    if (it->getItemName() == "a.txt") {
      ++files;
      EXPECT_EQ(info->getType(), IFileInfoBase::TypeFile);
      EXPECT_EQ(info->getSize(), 5);
    } else if (it->getItemName() == "sub") {
      ++folders;
      EXPECT_EQ(info->getType(), IFileInfoBase::TypeFolder);
    }
  }
  EXPECT_EQ(files, 1);
  EXPECT_EQ(folders, 1);
  EXPECT_FALSE(m_fs->isFolderEmpty(folderURI()));
}

TEST_F(LocalFileSystemTest, MetaModifierAppliesOnlyOnRequest) {
  CURI target = uri("meta.txt");
  writeFile(target, "m");
  CTime original = m_fs->getFileInfo(target, true)->getDataModifiedTime();
  CTime wanted(int64{981173106} * 1000000);  // 2001-02-03
  {
    P<IFileMetaModifier> modifier = m_fs->createMetaModifier(target, true);
    modifier->setDataModifiedTime(wanted);
    modifier->setReadOnly(true);
  }
  P<IFileInfoBase> info = m_fs->getFileInfo(target, true);
  EXPECT_EQ(info->getDataModifiedTime(), original);
  EXPECT_FALSE(info->isReadOnly());

  P<IFileMetaModifier> modifier = m_fs->createMetaModifier(target, true);
  modifier->setDataModifiedTime(wanted);
  modifier->setReadOnly(true);
  modifier->applyCachedChanges();
  info = m_fs->getFileInfo(target, true);
  EXPECT_EQ(info->getDataModifiedTime().getMicroseconds() / 1000000, wanted.getMicroseconds() / 1000000);
  EXPECT_TRUE(info->isReadOnly());
  // A read-only file is refused without force and deleted with it.
  expectError([&] { m_fs->deleteFile(target, false); },
              [](const CError& e) { EXPECT_TRUE(isAccessDeniedError(e)) << e.what(); });
  m_fs->deleteFile(target, true);
  EXPECT_FALSE(m_fs->pathExists(target));
#ifndef _WIN32
  writeFile(target, "m");
  modifier = m_fs->createMetaModifier(target, true);
  modifier->setUnixMode(0640);
  modifier->applyCachedChanges();
  info = m_fs->getFileInfo(target, true);
  ASSERT_TRUE(info->hasUnixInfo());
  EXPECT_EQ(info->getUnixMode() & 07777, 0640);
  EXPECT_FALSE(info->getUnixUserName().isEmpty());
#endif
}

TEST_F(LocalFileSystemTest, UniqueNames) {
  EXPECT_EQ(m_fs->createUniqueFilename(folderURI(), "name.ext"), uri("name.ext"));
  writeFile(uri("name.ext"), "");
  EXPECT_EQ(m_fs->createUniqueFilename(folderURI(), "name.ext"), uri("name (2).ext"));
  writeFile(uri("name (2).ext"), "");
  EXPECT_EQ(m_fs->createUniqueFilename(folderURI(), "name.ext"), uri("name (3).ext"));
  m_fs->createFolder(uri("dir.d"), 0);
  EXPECT_EQ(m_fs->createUniqueFolderName(folderURI(), "dir.d"), uri("dir.d (2)"));
  EXPECT_EQ(m_fs->createUniqueFilename(folderURI(), ".hidden"), uri(".hidden"));
  EXPECT_THROW(m_fs->createUniqueFilename(folderURI(), "a/b"), CInvalidArgError);
  EXPECT_THROW(m_fs->createUniqueFilename(folderURI(), ""), CInvalidArgError);
}

TEST_F(LocalFileSystemTest, MoveAndCopyWithAndWithoutOverwrite) {
  CURI a = uri("a.txt"), b = uri("b.txt"), c = uri("c.txt");
  writeFile(a, "aaa");
  writeFile(b, "bbb");
  expectError([&] { m_fs->moveFileOrFolder(a, b, false); }, [&](const CError& e) {
    EXPECT_TRUE(isFileOrFolderAlreadyExistsError(e)) << e.what();
  });
  EXPECT_EQ(readFile(b), "bbb");
  m_fs->moveFileOrFolder(a, b, true);
  EXPECT_FALSE(m_fs->pathExists(a));
  EXPECT_EQ(readFile(b), "aaa");
  m_fs->moveFileOrFolder(b, c, false);
  EXPECT_EQ(readFile(c), "aaa");

  writeFile(a, "new");
  expectError([&] { m_fs->copyFile(a, c, false); },
              [](const CError& e) { EXPECT_TRUE(isFileOrFolderAlreadyExistsError(e)) << e.what(); });
  EXPECT_EQ(readFile(c), "aaa");
  m_fs->copyFile(a, c, true);
  EXPECT_EQ(readFile(c), "new");
  m_fs->copyFile(a, b, false);
  EXPECT_EQ(readFile(b), "new");
  EXPECT_EQ(readFile(a), "new");

  // A folder at the target is never replaced.
  m_fs->createFolder(uri("dir"), 0);
  EXPECT_THROW(m_fs->moveFileOrFolder(a, uri("dir"), true), CError);
  EXPECT_TRUE(m_fs->fileExists(a));
  // Folders move too.
  m_fs->moveFileOrFolder(uri("dir"), uri("dir2"), false);
  EXPECT_TRUE(m_fs->folderExists(uri("dir2")));
  expectError([&] { m_fs->moveFileOrFolder(uri("missing"), uri("x"), false); },
              [](const CError& e) { EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what(); });
}

TEST_F(LocalFileSystemTest, Links) {
  CURI target = uri("target.txt");
  writeFile(target, "data");
  CURI hard = uri("hard.txt");
  m_fs->createFileHardLink(hard, target);
  EXPECT_TRUE(m_fs->getFileInfo(target, true)->isHardLinked());
  EXPECT_EQ(readFile(hard), "data");
  // Copying onto another name of the same file must not empty it.
  EXPECT_THROW(m_fs->copyFile(target, hard, true), CError);
  EXPECT_EQ(readFile(target), "data");
  EXPECT_EQ(m_fs->getFileInfo(hard, true)->tryGetID(), m_fs->getFileInfo(target, true)->tryGetID());

  CURI link = uri("link.txt");
  try {
    m_fs->createFileSymLink(link, target);
  } catch (const CError& e) {
    if (couldBePermissionDeniedError(e) || couldBeUnsupportedError(e)) {
      GTEST_SKIP() << "symbolic links cannot be created here: " << e.what();
    }
    throw;
  }
  P<IFileInfoBase> info = m_fs->getFileInfo(link, false);
  EXPECT_EQ(info->getSymLinkType(), IFileInfoBase::SymLinkFile);
  EXPECT_EQ(info->getType(), IFileInfoBase::TypeFile);
#ifndef _WIN32
  EXPECT_EQ(info->getSymLinkTargetPath(), target.toNativePath().toString());
  EXPECT_EQ(info->getSymLinkFlavor(), IFileInfoBase::SymLinkFlavorUnix);
#endif
  EXPECT_EQ(m_fs->getFileInfo(link, true)->getSize(), 4);
  EXPECT_TRUE(m_fs->fileExists(link));

  CURI folder = uri("folder");
  m_fs->createFolder(folder, 0);
  CURI folderLink = uri("folderLink");
  m_fs->createFolderSymLink(folderLink, folder);
  EXPECT_EQ(m_fs->getFileInfo(folderLink, false)->getSymLinkType(), IFileInfoBase::SymLinkFolder);
  EXPECT_TRUE(m_fs->folderExists(folderLink));
  m_fs->unlinkFolder(folderLink);
  EXPECT_FALSE(m_fs->pathExists(folderLink));
  EXPECT_TRUE(m_fs->folderExists(folder));

  m_fs->deleteSymLink(link);
  EXPECT_FALSE(m_fs->pathExists(link));
  EXPECT_TRUE(m_fs->fileExists(target));
  EXPECT_THROW(m_fs->deleteSymLink(target), CFileSystemError);
}

TEST_F(LocalFileSystemTest, ExistenceQueries) {
  CURI file = uri("f.txt"), folder = uri("d");
  writeFile(file, "");
  m_fs->createFolder(folder, 0);
  EXPECT_TRUE(m_fs->fileExists(file));
  EXPECT_FALSE(m_fs->folderExists(file));
  EXPECT_TRUE(m_fs->pathExists(file));
  EXPECT_FALSE(m_fs->fileExists(folder));
  EXPECT_TRUE(m_fs->folderExists(folder));
  EXPECT_TRUE(m_fs->pathExists(folder));
  EXPECT_FALSE(m_fs->pathExists(uri("none")));
  EXPECT_FALSE(m_fs->pathExists(uri("none").append("deeper")));
  EXPECT_TRUE(m_fs->quickCheckFolderAccessible(folder));
  EXPECT_FALSE(m_fs->quickCheckFolderAccessible(file));
  EXPECT_FALSE(m_fs->quickCheckFolderAccessible(uri("none")));
}

// Every spelling of an address reaches the same entry, whether it takes the
// quick way to a native path (plain ASCII) or the general one (escapes,
// "localhost", "." segments, trailing separators).
TEST_F(LocalFileSystemTest, SpellingsOfAnAddressReachTheSameEntry) {
  CURI folder = uri("sub dir");
  m_fs->createFolder(folder, 0);
  CURI file = folder.append(L"n\u00e4me.txt");
  writeFile(file, "x");
  const String base = folderURI().toString();
  EXPECT_TRUE(m_fs->fileExists(CURI::parse(base + "/sub%20dir/n%C3%A4me.txt")));
  EXPECT_TRUE(m_fs->folderExists(CURI::parse(base + "/sub%20dir/")));
  EXPECT_TRUE(m_fs->folderExists(CURI::parse(base + "/sub%20dir/.")));
  EXPECT_TRUE(m_fs->fileExists(CURI::parse(base + "/./sub%20dir/n%C3%A4me.txt")));
  EXPECT_TRUE(m_fs->folderExists(CURI::parse(base + "/")));
  CURI plain = uri("plain.txt");
  writeFile(plain, "y");
  const String plainText = plain.toString();
  EXPECT_TRUE(m_fs->fileExists(CURI::parse(plainText)));
  EXPECT_FALSE(m_fs->folderExists(CURI::parse(plainText + "/")));
  EXPECT_EQ(readFile(CURI::parse(plainText)), "y");
#if !defined(_WIN32)
  const String local = String("file://localhost") + plain.getPath();
  EXPECT_TRUE(m_fs->fileExists(CURI::parse(local)));
  // An empty segment is not a path at all, on either way.
  EXPECT_THROW(m_fs->fileExists(CURI::parse(String("file://") + folderURI().getPath() + "//plain.txt")),
               CBadPathError);
#endif
}

// A name that is not UTF-8 (an old disk's Latin-1 "caf\xE9.txt") lists as its
// escaped bytes and reaches its entry again: through the URI, and through the
// quick (plain ASCII) and the general way from a URI to a native path.
TEST_F(LocalFileSystemTest, NamesThatAreNotUTF8ListAndReachTheirEntries) {
#if defined(_WIN32)
  GTEST_SKIP() << "Windows names are UTF-16: no name on the disk is bytes that are not UTF-8";
#else
  test::COddNamesFolder odd(test::bytesOf(m_temp.file("odd")));
  const CURI root = uri("odd");
  const std::vector<String> listed = test::checkOddNamesListing(*m_fs, root);
  EXPECT_EQ(listed.size(), test::oddNames().size() + 2);

  const wchar_t latin1Name[] = {L'c', L'a', L'f', static_cast<wchar_t>(0xDCE9), L'.', L't', L'x', L't'};
  const String name(latin1Name, 8);
  EXPECT_NE(std::find(listed.begin(), listed.end(), name), listed.end());
  const String base = root.toString();
  EXPECT_EQ(root.append(name).toString(), base + "/caf%E9.txt");
  EXPECT_EQ(readFile(CURI(base + "/caf%E9.txt")), test::oddContentOf("caf\xE9.txt"));
  EXPECT_EQ(readFile(CURI(base + "/./caf%e9.txt")), test::oddContentOf("caf\xE9.txt"));
  EXPECT_EQ(readFile(CURI(base + "/caf%C3%A9.txt")), test::oddContentOf("caf\xC3\xA9.txt"));
  EXPECT_EQ(readFile(root.append(L"caf\u00e9.txt")), test::oddContentOf("caf\xC3\xA9.txt"));
  EXPECT_TRUE(m_fs->fileExists(CURI(base + "/%FF")));
  EXPECT_FALSE(m_fs->fileExists(CURI(base + "/%FF%FF")));

  // Entries made, moved and deleted by such names have those bytes on the disk.
  const std::string made = "made-\xE9\xF0\x9F\x98\xC3\xA9";
  const CURI madeURI = root.append(String::fromUTF8Lossless(made.data(), made.size()));
  writeFile(madeURI, "new");
  EXPECT_EQ(test::readRawFile(odd.getPath() + "/" + made), "new");
  const std::string moved = "moved-\xE8";
  m_fs->moveFileOrFolder(madeURI, root.append(String::fromUTF8Lossless(moved.data(), moved.size())),
                         false);
  EXPECT_EQ(test::readRawFile(odd.getPath() + "/" + moved), "new");
  m_fs->deleteFile(CURI(base + "/moved-%E8"), false);
  EXPECT_EQ(test::readRawFile(odd.getPath() + "/" + moved), "");
  EXPECT_FALSE(m_fs->pathExists(CURI(base + "/moved-%E8")));
#endif
}

TEST_F(LocalFileSystemTest, ErrorsCarryURIAndKind) {
  CURI missing = uri("missing.txt");
  expectError([&] { m_fs->getFileInfo(missing, true); }, [&](const CError& e) {
    EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what();
    EXPECT_EQ(e.getParams().get("uri"), missing.toString());
  });
  expectError([&] { m_fs->deleteFile(missing, false); },
              [](const CError& e) { EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what(); });

  CURI folder = uri("full");
  m_fs->createFolder(folder, 0);
  writeFile(folder.append("x"), "x");
  expectError([&] { m_fs->deleteEmptyFolder(folder, false); }, [&](const CError& e) {
    EXPECT_TRUE(isFolderNotEmptyError(e)) << e.what();
    EXPECT_EQ(e.getParams().get("uri"), folder.toString());
    EXPECT_EQ(e.getParams().get("action"), "CFileSystem::deleteEmptyFolder");
    EXPECT_EQ(e.getErrorCodeDomain(), CError::sysErrorDomain());
  });
  expectError([&] { m_fs->createFolder(folder, 0); }, [](const CError& e) {
    EXPECT_TRUE(isFileOrFolderAlreadyExistsError(e)) << e.what();
  });
  EXPECT_THROW(m_fs->deleteFile(folder, true), CFileSystemError);
  EXPECT_THROW(m_fs->deleteEmptyFolder(folder.append("x"), true), CFileSystemError);
  m_fs->deleteFile(folder.append("x"), false);
  m_fs->deleteEmptyFolder(folder, false);
  EXPECT_FALSE(m_fs->pathExists(folder));

  EXPECT_THROW(m_fs->fileExists(CURI::parse("http://example.com/x")), CURIIncompatibleError);
  EXPECT_THROW(m_fs->createFolder(uri("bad"), 0x100), CInvalidArgError);
}

TEST_F(LocalFileSystemTest, FolderCreation) {
  CURI deep = uri("p").append("q").append("r");
  EXPECT_THROW(m_fs->createFolder(deep, 0), CError);
  m_fs->createFolder(deep, IFileSystem::CreateFolderParents);
  EXPECT_TRUE(m_fs->folderExists(deep));
  EXPECT_FALSE(m_fs->ensureFolderExists(deep, 0));
  EXPECT_TRUE(m_fs->ensureFolderExists(deep.append("s"), 0));
  writeFile(uri("file"), "");
  expectError([&] { m_fs->ensureFolderExists(uri("file"), 0); }, [](const CError& e) {
    EXPECT_EQ(CFileSystemError::getProblem(e.getParams()), CFileSystemError::ProblemWrongType);
  });
  m_fs->ensureFileExists(uri("ensured"));
  EXPECT_TRUE(m_fs->fileExists(uri("ensured")));
  writeFile(uri("ensured"), "keep");
  m_fs->ensureFileExists(uri("ensured"));
  EXPECT_EQ(readFile(uri("ensured")), "keep");
}

TEST_F(LocalFileSystemTest, VolumeQueries) {
  EXPECT_GT(m_fs->getFreeSpaceInFolder(folderURI()), 0);
  EXPECT_GT(m_fs->getFileSectorSize(folderURI()), 0);
  CURI root = m_fs->getVolumeRootPath(folderURI());
  EXPECT_TRUE(m_fs->folderExists(root));
  EXPECT_TRUE(folderURI().toString().toStdWString().rfind(root.toString().toStdWString().substr(
                  0, root.toString().getLength() - 1), 0) == 0);
  EXPECT_FALSE(m_fs->getAccountOrUserNameUsedForAccess(folderURI()).isEmpty());
}

TEST_F(LocalFileSystemTest, BackgroundOperations) {
  std::string data(100000, '\0');
  for (size_t i = 0; i < data.size(); ++i) data[i] = static_cast<char>(i * 7);
  auto source = createObject<CBufferStream>();
  source->write(data.data(), static_cast<int>(data.size()));
  source->seek(0);
  CURI target = uri("stored.bin");
  P<IBackgroundOp> op = m_fs->backgroundStore(target, static_cast<int64>(data.size()), source.get(), false, nullptr);
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_EQ(readFile(target), data);

  op = m_fs->backgroundCreateFolder(uri("bgdir"), 0, nullptr);
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_TRUE(m_fs->folderExists(uri("bgdir")));

  op = m_fs->backgroundMoveFileOrFolder(target, uri("moved.bin"), false, nullptr);
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_TRUE(m_fs->fileExists(uri("moved.bin")));

  op = m_fs->backgroundDeleteFile(uri("moved.bin"), nullptr);
  ASSERT_TRUE(op->waitFinished(10000));
  op->throwErrorIfFailed();
  EXPECT_FALSE(m_fs->pathExists(uri("moved.bin")));

  op = m_fs->backgroundDeleteFile(uri("moved.bin"), nullptr);
  ASSERT_TRUE(op->waitFinished(10000));
  EXPECT_THROW(op->throwErrorIfFailed(), CError);

  // A foreign URI fails at once.
  op = m_fs->backgroundDeleteFile(CURI::parse("http://example.com/x"), nullptr);
  EXPECT_TRUE(op->hasFinished());
  EXPECT_THROW(op->throwErrorIfFailed(), CURIIncompatibleError);
}

TEST_F(LocalFileSystemTest, SubDataStreamsRoundTrip) {
  CURI file = uri("host.txt");
  writeFile(file, "main");
  P<IIOStream> sub;
  try {
    sub = m_fs->createSubDataStream(file, "extra", IIOStream::AccessReadWrite, TFlags<IIOStream::Flags>());
  } catch (const CError& e) {
    if (couldBeUnsupportedError(e)) GTEST_SKIP() << "no sub data streams on this file system: " << e.what();
    throw;
  }
  sub->write("side data", 9);
  sub->close();
  sub = m_fs->createSubDataStream(file, "extra", IIOStream::AccessRead, TFlags<IIOStream::Flags>());
  char buffer[16] = {};
  ASSERT_EQ(sub->getLength(), 9);
  sub->read(buffer, 9);
  EXPECT_EQ(std::string(buffer, 9), "side data");
  sub->close();
  EXPECT_EQ(readFile(file), "main");
  expectError([&] {
    m_fs->createSubDataStream(file, "other", IIOStream::AccessRead, TFlags<IIOStream::Flags>());
  }, [](const CError& e) { EXPECT_TRUE(isFileOrFolderNotFoundError(e)) << e.what(); });
  EXPECT_THROW(m_fs->createSubDataStream(file, "a:b", IIOStream::AccessRead, TFlags<IIOStream::Flags>()),
               CInvalidArgError);
#ifndef _WIN32
  P<IFileSystem::CNativeMetaData> meta = m_fs->getNativeMetaData(file, true, String());
  std::string block(reinterpret_cast<const char*>(meta->getData()), meta->getSize());
  EXPECT_NE(block.find(std::string("\x0a\0\0\0user.extra\x09\0\0\0side data", 22)), std::string::npos);
#endif
  EXPECT_THROW(m_fs->getNativeMetaData(file, true, "unknown"), CInvalidArgError);
}

}  // namespace
}  // namespace zel
