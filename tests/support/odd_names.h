// File names that are not UTF-8, and a folder of them on the disk, for the
// tests of names that must come back unchanged from a listing: through the
// codec, URIs, the local file system and the proxy.
#pragma once

#include <gtest/gtest.h>

#include <map>
#include <string>
#include <vector>

#include "zel/fs/file_system.h"
#include "zel/path/uri.h"

#if !defined(_WIN32)
#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#endif

namespace zel::test {

// Every kind of ill-formed UTF-8 we could think of, each a whole file name (no
// "/", no zero byte), and well-formed names that a byte-for-byte Latin-1
// reading would confuse with them.
inline const std::vector<std::string>& oddNames() {
  static const std::vector<std::string> names = {
      "lone-continuation-\x80",
      "continuations-\x80\xBF\x9F.txt",
      "truncated2-\xC3.txt",
      "truncated3-\xE2\x82.txt",
      "truncated4-\xF0\x9F\x98.txt",
      "bad-continuation-\xC3(.txt",
      "overlong2-\xC0\xAF.txt",
      "overlong2-\xC1\xBF.txt",
      "overlong3-\xE0\x80\xAF.txt",
      "overlong4-\xF0\x80\x80\xAF.txt",
      "surrogate-\xED\xA0\x80.txt",
      "escaped-byte-as-utf8-\xED\xB3\xA9.txt",  // the three bytes of U+DCE9
      "above-max-\xF4\x90\x80\x80.txt",
      "high-bytes-\xF5\xF6\xF7\xF8\xF9\xFA\xFB\xFC\xFD\xFE.txt",
      "\xFF",
      "\xE9\xFF\x80\xC0\xF5",
      "mixed-caf\xC3\xA9-\xE9-\xE2\x82\xAC-\xF0\x9F\x98\x80-\xFF.txt",
      "ends-truncated-\xE2\x82",
      "caf\xE9.txt",
      "caf\xE8.txt",
      "caf\xC3\xA9.txt",
      "valid-then-invalid-\xC3\xA9\xE9",
  };
  return names;
}

// The folder and link beside the files of a COddNamesFolder.
inline const char* oddFolderName() { return "folder-\xE9\xFF"; }
inline const char* oddInnerName() { return "inner-\xC0\xAF.txt"; }
inline const char* oddLinkName() { return "link-\xE9"; }
inline const char* oddLinkTarget() { return "caf\xE9.txt"; }
inline std::string oddContentOf(const std::string& name) { return "content of " + name; }

// The bytes of a name for messages, "\xHH" for each byte outside ASCII.
inline std::string printableBytes(const std::string& bytes) {
  static const char kHex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned char b : bytes) {
    if (b >= 0x20 && b < 0x7F) {
      out += static_cast<char>(b);
    } else {
      out += "\\x";
      out += kHex[b >> 4];
      out += kHex[b & 0xF];
    }
  }
  return out;
}

// The exact bytes of a name as the library gives them back.
inline std::string bytesOf(const String& name) {
  int length = 0;
  const wxCharBuffer raw = name.toUTF8Lossless(&length);
  return std::string(raw.data(), static_cast<size_t>(length));
}

#if !defined(_WIN32)

// A folder holding a file for each of oddNames() (its content tells its name),
// a folder of an odd name with one file inside, and a symbolic link of an odd
// name to one of the files. It is made and removed with the system's calls on
// the raw bytes, never through the library, so the test's view of the disk
// does not depend on the code under test.
class COddNamesFolder {
 public:
  // path: the bytes of a folder that does not exist yet, in one that does.
  explicit COddNamesFolder(std::string path) : m_path(std::move(path)) {
    if (::mkdir(m_path.c_str(), 0700) != 0) {
      ADD_FAILURE() << "mkdir failed: " << m_path;
      return;
    }
    for (const std::string& name : oddNames()) writeFile(m_path + "/" + name, oddContentOf(name));
    const std::string folder = m_path + "/" + oddFolderName();
    EXPECT_EQ(::mkdir(folder.c_str(), 0700), 0);
    writeFile(folder + "/" + oddInnerName(), oddContentOf(oddInnerName()));
    const std::string link = m_path + "/" + oddLinkName();
    EXPECT_EQ(::symlink(oddLinkTarget(), link.c_str()), 0);
  }
  ~COddNamesFolder() { removeTree(m_path); }
  COddNamesFolder(const COddNamesFolder&) = delete;
  COddNamesFolder& operator=(const COddNamesFolder&) = delete;

  // The bytes of its path.
  const std::string& getPath() const { return m_path; }

 private:
  static void writeFile(const std::string& path, const std::string& content) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0600);
    ASSERT_GE(fd, 0) << "cannot create " << path;
    EXPECT_EQ(::write(fd, content.data(), content.size()), static_cast<ssize_t>(content.size()));
    ::close(fd);
  }
  static void removeTree(const std::string& path) {
    if (DIR* dir = ::opendir(path.c_str())) {
      while (const dirent* entry = ::readdir(dir)) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") continue;
        const std::string child = path + "/" + name;
        struct stat st;
        if (::lstat(child.c_str(), &st) == 0 && S_ISDIR(st.st_mode)) {
          removeTree(child);
        } else {
          ::unlink(child.c_str());
        }
      }
      ::closedir(dir);
    }
    ::rmdir(path.c_str());
  }

  std::string m_path;
};

// The content of the file at the raw bytes of path; empty when it cannot be
// read.
inline std::string readRawFile(const std::string& path) {
  std::string content;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return content;
  char buffer[4096];
  ssize_t n;
  while ((n = ::read(fd, buffer, sizeof buffer)) > 0) content.append(buffer, static_cast<size_t>(n));
  ::close(fd);
  return content;
}

// Lists root (a COddNamesFolder) through fs and checks that every entry is
// there exactly once, that each name gives back its bytes, and that each name
// reaches its entry: appended to root, and through the URI's escaped and
// readable texts parsed again. Returns the names listed.
inline std::vector<String> checkOddNamesListing(IFileSystem& fs, const CURI& root) {
  struct Expected {
    IFileInfoBase::Type type;
    std::string content;
    bool link = false;
  };
  std::map<std::string, Expected> expected;
  for (const std::string& name : oddNames()) {
    expected[name] = {IFileInfoBase::TypeFile, oddContentOf(name)};
  }
  expected[oddFolderName()] = {IFileInfoBase::TypeFolder, std::string()};
  expected[oddLinkName()] = {IFileInfoBase::TypeFile, oddContentOf(oddLinkTarget()), true};

  auto readAll = [&fs](const CURI& uri) {
    P<IIOStream> stream = fs.createStream(uri, IIOStream::AccessRead, TFlags<IIOStream::Flags>());
    std::string bytes(static_cast<size_t>(stream->getLength()), '\0');
    if (!bytes.empty()) stream->read(bytes.data(), static_cast<int>(bytes.size()));
    stream->close();
    return bytes;
  };

  std::vector<String> listed;
  std::map<std::string, int> seen;
  P<IFolderContentsIterator> items = fs.getFolderContents(root);
  while (items->nextItem()) {
    const String name = items->getItemName();
    listed.push_back(name);
    const std::string bytes = bytesOf(name);
    SCOPED_TRACE("name " + printableBytes(bytes));
    ++seen[bytes];
    auto it = expected.find(bytes);
    if (it == expected.end()) {
      ADD_FAILURE() << "listed a name that is not on the disk";
      continue;
    }
    P<IFileInfoBase> info = items->getItemInfo();
    EXPECT_EQ(info->getType(), it->second.type);

    const CURI uri = root.append(name);
    EXPECT_EQ(uri.getName(), name);
    EXPECT_EQ(CURI(uri.toString(true)), uri);
    EXPECT_EQ(CURI(uri.toString(false)), uri);
    if (it->second.link) {
      EXPECT_EQ(info->getSymLinkType(), IFileInfoBase::SymLinkFile);
      EXPECT_EQ(bytesOf(info->getSymLinkTargetPath()), oddLinkTarget());
    }
    if (it->second.type == IFileInfoBase::TypeFile) {
      // An unfollowed link has the size of its own text.
      if (!it->second.link) {
        EXPECT_EQ(info->getSize(), static_cast<int64>(it->second.content.size()));
      }
      EXPECT_EQ(readAll(uri), it->second.content);
      EXPECT_EQ(readAll(CURI(uri.toString(true))), it->second.content);
      EXPECT_EQ(readAll(CURI(uri.toString(false))), it->second.content);
    } else {
      P<IFolderContentsIterator> inner = fs.getFolderContents(CURI(uri.toString(false)));
      if (!inner->nextItem()) {
        ADD_FAILURE() << "the odd folder lists empty";
        continue;
      }
      const String innerName = inner->getItemName();
      EXPECT_EQ(bytesOf(innerName), oddInnerName());
      EXPECT_EQ(readAll(uri.append(innerName)), oddContentOf(oddInnerName()));
      EXPECT_FALSE(inner->nextItem());
    }
  }
  for (const auto& [bytes, entry] : expected) {
    EXPECT_EQ(seen[bytes], 1) << "listed " << seen[bytes] << " times: " << printableBytes(bytes);
  }
  return listed;
}

#endif

}  // namespace zel::test
