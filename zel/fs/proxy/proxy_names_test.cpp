// Names that are not UTF-8 through the cross-process file system: the server
// lists them, the data streams carry them, and the client's copy of each name
// reaches the same entry again.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "zel/fs/local_file_system.h"
#include "zel/fs/proxy/proxy_file_system.h"
#include "zel/fs/proxy/proxy_file_system_server.h"
#include "tests/support/odd_names.h"
#include "tests/support/proxy_server_test_util.h"
#include "tests/support/temp_folder.h"

namespace zel {
namespace {

using proxy_test::Transport;

std::vector<String> listNames(IFileSystem& fs, const CURI& folder) {
  std::vector<String> names;
  P<IFolderContentsIterator> items = fs.getFolderContents(folder);
  while (items->nextItem()) names.push_back(items->getItemName());
  std::sort(names.begin(), names.end());
  return names;
}

// What a Linux server lists for the odd names, kept in memory, so that the
// wire is tested on both platforms: the client must see exactly the Strings
// the server's file system gave, and each must reach its entry.
TEST(ProxyNamesTest, EscapedBytesInNamesCrossTheWireUnchanged) {
  P<proxy_test::CMemFileSystem> memory = createObject<proxy_test::CMemFileSystem>();
  memory->addFolder("/area");
  std::vector<String> names;
  for (const std::string& bytes : test::oddNames()) {
    const String name = String::fromUTF8Lossless(bytes.data(), bytes.size());
    names.push_back(name);
    memory->addFile(String("/area/") + name, test::oddContentOf(bytes));
  }
  std::sort(names.begin(), names.end());
  // The name of an old disk's "caf\xE9.txt" holds the escaped byte U+DCE9.
  const wchar_t latin1Name[] = {L'c', L'a', L'f', static_cast<wchar_t>(0xDCE9), L'.', L't', L'x', L't'};
  EXPECT_TRUE(std::binary_search(names.begin(), names.end(), String(latin1Name, 8)));

  proxy_test::CServerLink link([&](CProxyFileSystemServer& server) {
    server.addShare(CURISelector(CURI("mem://host/area")), memory.get());
    return memory;
  });
  P<CProxyFileSystem> proxy = createObject<CProxyFileSystem>(link.connect().get());
  const CURI root("mem://host/area");
  const std::vector<String> listed = listNames(*proxy, root);
  EXPECT_EQ(listed, names);
  for (const String& name : listed) {
    const std::string bytes = test::bytesOf(name);
    SCOPED_TRACE("name " + test::printableBytes(bytes));
    P<IIOStream> stream = proxy->createStream(root.append(name), IIOStream::AccessRead,
                                              TFlags<IIOStream::Flags>());
    std::string content(static_cast<size_t>(stream->getLength()), '\0');
    stream->read(content.data(), static_cast<int>(content.size()));
    stream->close();
    EXPECT_EQ(content, test::oddContentOf(bytes));
  }
  EXPECT_TRUE(proxy->fileExists(CURI("mem://host/area/caf%E9.txt")));
  EXPECT_FALSE(proxy->fileExists(CURI("mem://host/area/caf%C3%A9x.txt")));
  proxy->close();
}

// A folder of odd names on the disk, shared by a server in this process or in
// a child process, listed and opened through the client.
class ProxyNamesOnDiskTest : public ::testing::TestWithParam<Transport> {
 protected:
  static void TearDownTestSuite() { s_child.reset(); }
  void SetUp() override {
#if defined(_WIN32)
    GTEST_SKIP() << "Windows names are UTF-16: no name on the disk is bytes that are not UTF-8";
#else
    m_local = createObject<CFileSystem>();
    if (GetParam() == Transport::ChildProcess) {
      if (!s_child) s_child = std::make_unique<proxy_test::CChildServer>("proxy_fs_server");
      m_folder = s_child->newTestFolder();
      m_link = std::make_unique<proxy_test::CServerLink>(*s_child);
    } else {
      m_folder = m_temp.getPath();
      m_link = std::make_unique<proxy_test::CServerLink>([this](CProxyFileSystemServer& server) {
        server.addShare(CURISelector(CURI::fromNativePath(CNativePath(m_temp.getPath()))),
                        m_local.get());
        return P<proxy_test::CMemFileSystem>();
      });
    }
    m_proxy = createObject<CProxyFileSystem>(m_link->connect().get());
#endif
  }
  void TearDown() override {
    if (m_proxy) m_proxy->close();
    m_link.reset();
    if (m_local) m_local->dispose();
  }

  static inline std::unique_ptr<proxy_test::CChildServer> s_child;
  test::CTempFolder m_temp;
  String m_folder;
  P<CFileSystem> m_local;
  std::unique_ptr<proxy_test::CServerLink> m_link;
  P<CProxyFileSystem> m_proxy;
};
INSTANTIATE_TEST_SUITE_P(, ProxyNamesOnDiskTest,
                         ::testing::Values(Transport::InProcess, Transport::ChildProcess),
                         proxy_test::transportName);

TEST_P(ProxyNamesOnDiskTest, EveryNameIsListedAndReachesItsEntry) {
#if !defined(_WIN32)  // skipped by SetUp there
  test::COddNamesFolder odd(test::bytesOf(m_folder) + "/odd");
  const CURI root = CURI::fromNativePath(CNativePath(m_folder)).append("odd");
  std::vector<String> listed = test::checkOddNamesListing(*m_proxy, root);
  std::sort(listed.begin(), listed.end());
  // The client sees the very Strings the server's file system lists.
  EXPECT_EQ(listed, listNames(*m_local, root));
  EXPECT_EQ(listed.size(), test::oddNames().size() + 2);

  // Names made on the client reach the disk as their bytes.
  const std::string made = "made-\xE9\xC3\xA9\xFF";
  P<IIOStream> stream =
      m_proxy->createStream(root.append(String::fromUTF8Lossless(made.data(), made.size())),
                            IIOStream::AccessReadWrite, IIOStream::FlagFailIfAlreadyExists);
  stream->write("new", 3);
  stream->close();
  EXPECT_EQ(test::readRawFile(odd.getPath() + "/" + made), "new");
#endif
}

}  // namespace
}  // namespace zel
