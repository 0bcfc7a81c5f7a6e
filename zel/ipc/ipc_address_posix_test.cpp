// The Linux socket folder: layout, creation and the refusal of unsafe folders.
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <string>

#include "temp_folder.h"
#include "zel/core/error.h"
#include "zel/ipc/ipc_address.h"

namespace zel {
namespace {

std::string native(const String& path) { return path.toStdUTF8(); }

unsigned modeOf(const String& path) {
  struct stat st;
  if (::lstat(native(path).c_str(), &st) != 0) return 0;
  return st.st_mode & 07777;
}

// Sets the umask for a scope.
class CUmask {
 public:
  explicit CUmask(mode_t mask) : m_old(::umask(mask)) {}
  ~CUmask() { ::umask(m_old); }

 private:
  mode_t m_old;
};

void expectRefused(const String& folder, bool global, int code) {
  try {
    checkUnixSocketFolder(folder, global, true);
    ADD_FAILURE() << "accepted " << folder.toStdUTF8();
  } catch (const CError& error) {
    EXPECT_EQ(error.getErrorCodeDomain(), "errno");
    EXPECT_EQ(error.getErrorCode(), code);
    EXPECT_EQ(error.getParams().get("folder"), folder);
  }
}

TEST(IPCAddressPosixTest, ProcessUserIDIsTheEffectiveUid) {
  EXPECT_EQ(CIPCAddress::getProcessUserID(), String::fromInt64(geteuid()));
}

TEST(IPCAddressPosixTest, FolderIsCreatedWithExactModesWhateverTheUmask) {
  test::CTempFolder temp;
  const String perUser = temp.file("user");
  const String global = temp.file("global");

  checkUnixSocketFolder(perUser, false, false);
  EXPECT_EQ(::access(native(perUser).c_str(), F_OK), -1) << "created without createFolder";

  {
    CUmask mask(0277);  // would leave the owner without write permission
    checkUnixSocketFolder(perUser, false, true);
  }
  EXPECT_EQ(modeOf(perUser), 0700u);
  {
    CUmask mask(0022);
    checkUnixSocketFolder(global, true, true);
  }
  EXPECT_EQ(modeOf(global), 01777u);

  // Existing good folders pass again.
  EXPECT_NO_THROW(checkUnixSocketFolder(perUser, false, true));
  EXPECT_NO_THROW(checkUnixSocketFolder(global, true, false));
}

TEST(IPCAddressPosixTest, UnsafeFoldersAreRefused) {
  test::CTempFolder temp;

  const String open = temp.file("open");
  ASSERT_EQ(::mkdir(native(open).c_str(), 0700), 0);
  ASSERT_EQ(::chmod(native(open).c_str(), 0755), 0);
  expectRefused(open, false, EPERM);
  // A global folder needs the sticky bit and full permissions.
  ASSERT_EQ(::chmod(native(open).c_str(), 0777), 0);
  expectRefused(open, true, EPERM);

  // A symbolic link is refused even when it leads to a good folder.
  const String good = temp.file("good");
  ASSERT_EQ(::mkdir(native(good).c_str(), 0700), 0);
  ASSERT_EQ(::chmod(native(good).c_str(), 0700), 0);
  const String link = temp.file("link");
  ASSERT_EQ(::symlink(native(good).c_str(), native(link).c_str()), 0);
  expectRefused(link, false, ENOTDIR);
  EXPECT_NO_THROW(checkUnixSocketFolder(good, false, false));

  const String file = temp.file("file");
  FILE* handle = std::fopen(native(file).c_str(), "w");
  ASSERT_NE(handle, nullptr);
  std::fclose(handle);
  expectRefused(file, false, ENOTDIR);

  // A folder of another user: root may hand one to a nobody-owned uid.
  if (geteuid() == 0) {
    const String foreign = temp.file("foreign");
    ASSERT_EQ(::mkdir(native(foreign).c_str(), 0700), 0);
    ASSERT_EQ(::chown(native(foreign).c_str(), 65534, 65534), 0);
    expectRefused(foreign, false, EPERM);
  }
}

TEST(IPCAddressPosixTest, SocketPathLayout) {
  CIPCAddress address("zeltest", "layout", false);
  const String path = address.getUnixSocketPath(true);
  const std::string text = path.toStdUTF8();
  const std::string suffix = "/zeltest_layout.sock";
  ASSERT_GT(text.size(), suffix.size());
  EXPECT_EQ(text.substr(text.size() - suffix.size()), suffix);
  const std::string folder = text.substr(0, text.size() - suffix.size());

  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  struct stat st;
  const bool runtimeQualifies = runtime && runtime[0] == '/' && ::lstat(runtime, &st) == 0 &&
                                S_ISDIR(st.st_mode) && st.st_uid == geteuid() &&
                                (st.st_mode & 022) == 0;
  if (runtimeQualifies) {
    EXPECT_EQ(folder, std::string(runtime) + "/zel-ipc");
  } else {
    EXPECT_EQ(folder, "/tmp/zel-ipc-" + std::to_string(geteuid()));
  }
  EXPECT_EQ(modeOf(String::fromUTF8(folder.c_str())), 0700u);

  EXPECT_EQ(CIPCAddress("zeltest", "layout", true).getUnixSocketPath(false),
            "/tmp/zel-ipc-global/zeltest_layout.sock");
  EXPECT_THROW(CIPCAddress("zeltest", "a/b", false).getUnixSocketPath(false), CInvalidArgError);
}

}  // namespace
}  // namespace zel
