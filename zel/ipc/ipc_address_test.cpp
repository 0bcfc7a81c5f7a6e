#include "zel/ipc/ipc_address.h"

#include <gtest/gtest.h>

#include "zel/core/error.h"

namespace zel {
namespace {

TEST(IPCAddressTest, ValueSemantics) {
  CIPCAddress empty;
  EXPECT_TRUE(empty.isEmpty());
  EXPECT_FALSE(empty.getGlobal());

  CIPCAddress address("app", "svc", true);
  EXPECT_FALSE(address.isEmpty());
  EXPECT_EQ(address.getAppID(), "app");
  EXPECT_EQ(address.getName(), "svc");
  EXPECT_TRUE(address.getGlobal());
  // No name is empty, whatever the application ID.
  EXPECT_TRUE(CIPCAddress("app", "", false).isEmpty());

  CIPCAddress copy(address);
  EXPECT_EQ(copy, address);
  copy = CIPCAddress("app", "svc", false);
  EXPECT_NE(copy, address);  // the global flag counts
  EXPECT_NE(CIPCAddress("App", "svc", true), address);
  EXPECT_NE(CIPCAddress("app", "Svc", true), address);
  EXPECT_EQ(address, CIPCAddress("app", "svc", true));
}

TEST(IPCAddressTest, WindowsPipeNameSeparatesUsers) {
  CIPCAddress perUser("zel", "proxy", false);
  EXPECT_EQ(perUser.getWindowsPipeName("S-1-5-21-1-2-3-1001"), "zel_proxy#S-1-5-21-1-2-3-1001");
  EXPECT_NE(perUser.getWindowsPipeName("S-1-5-21-1-2-3-1001"),
            perUser.getWindowsPipeName("S-1-5-21-1-2-3-1002"));
  // The process owner's ID is the one used by default.
  EXPECT_EQ(perUser.getWindowsPipeName(), perUser.getWindowsPipeName(CIPCAddress::getProcessUserID()));

  CIPCAddress global("zel", "proxy", true);
  EXPECT_EQ(global.getWindowsPipeName("S-1-5-21-1-2-3-1001"), "zel_proxy");
  EXPECT_EQ(global.getWindowsPipeName("S-1-5-21-1-2-3-1002"), "zel_proxy");
  EXPECT_EQ(global.getWindowsPipeName(), "zel_proxy");
}

TEST(IPCAddressTest, SemaphoreNames) {
  CIPCAddress perUser("zel", "lock", false);
  CIPCAddress global("zel", "lock", true);
  EXPECT_EQ(perUser.getWindowsSemaphoreName("1000"), "zel_lock#1000##sem");
  EXPECT_EQ(global.getWindowsSemaphoreName("1000"), "Global\\zel_lock##sem");
  EXPECT_EQ(perUser.getUnixSemaphoreName("1000"), "/zel_lock#1000##sem");
  EXPECT_EQ(global.getUnixSemaphoreName("1000"), "/zel_lock##sem");
  EXPECT_NE(perUser.getUnixSemaphoreName("1000"), perUser.getUnixSemaphoreName("1001"));

  // The flat semaphore name space allows 251 bytes.
  String longName(std::wstring(251 - 7, L'n').c_str());  // "/" + "_" + name + "##sem"
  EXPECT_NO_THROW(CIPCAddress("", longName, true).getUnixSemaphoreName("0"));
  longName += L"n";
  EXPECT_THROW(CIPCAddress("", longName, true).getUnixSemaphoreName("0"), CInvalidArgError);
  EXPECT_THROW(CIPCAddress("a/b", "c", true).getUnixSemaphoreName("0"), CInvalidArgError);
}

TEST(IPCAddressTest, UnixSocketFolderChoice) {
  EXPECT_EQ(CIPCAddress::chooseUnixSocketFolder(true, "/run/user/1000", "1000"),
            "/tmp/zel-ipc-global");
  EXPECT_EQ(CIPCAddress::chooseUnixSocketFolder(false, "/run/user/1000", "1000"),
            "/run/user/1000/zel-ipc");
  EXPECT_EQ(CIPCAddress::chooseUnixSocketFolder(false, "/run/user/1000//", "1000"),
            "/run/user/1000/zel-ipc");
  EXPECT_EQ(CIPCAddress::chooseUnixSocketFolder(false, "", "1000"), "/tmp/zel-ipc-1000");
  EXPECT_NE(CIPCAddress::chooseUnixSocketFolder(false, "", "1000"),
            CIPCAddress::chooseUnixSocketFolder(false, "", "1001"));
}

TEST(IPCAddressTest, UnixSocketPathChecks) {
  CIPCAddress address("zel", "proxy", false);
  EXPECT_EQ(address.formatUnixSocketPath("/tmp/zel-ipc-1000"), "/tmp/zel-ipc-1000/zel_proxy.sock");

  // 107 bytes fit, 108 do not; the limit counts bytes, not characters.
  const String folder = "/f";
  const int fixed = 2 + 1 + 4 + 5;  // "/f" "/" "zel_" ".sock"
  String name(std::wstring(static_cast<size_t>(kMaxUnixSocketPathBytes - fixed), L'x').c_str());
  EXPECT_EQ(CIPCAddress("zel", name, false).formatUnixSocketPath(folder).getLength(), 107);
  EXPECT_THROW(CIPCAddress("zel", name + L"x", false).formatUnixSocketPath(folder),
               CInvalidArgError);
  String wide(std::wstring(static_cast<size_t>(kMaxUnixSocketPathBytes - fixed - 1), L'x').c_str());
  wide += L"\u00e9";  // two bytes in UTF-8
  EXPECT_THROW(CIPCAddress("zel", wide, false).formatUnixSocketPath(folder), CInvalidArgError);

  EXPECT_THROW(CIPCAddress("zel", "a/b", false).formatUnixSocketPath(folder), CInvalidArgError);
  EXPECT_THROW(CIPCAddress("z/l", "ab", false).formatUnixSocketPath(folder), CInvalidArgError);
  EXPECT_THROW(CIPCAddress("zel", String(L"a\0b", 3), false).formatUnixSocketPath(folder),
               CInvalidArgError);
  EXPECT_THROW(CIPCAddress("zel", "", false).formatUnixSocketPath(folder), CInvalidArgError);
  try {
    CIPCAddress("zel", "a/b", false).formatUnixSocketPath(folder);
  } catch (const CInvalidArgError& error) {
    EXPECT_EQ(error.getParams().get("name"), "a/b");
  }
}

TEST(IPCAddressTest, ProcessUserIDIsStable) {
  const String id = CIPCAddress::getProcessUserID();
  EXPECT_FALSE(id.isEmpty());
  EXPECT_EQ(id, CIPCAddress::getProcessUserID());
}

}  // namespace
}  // namespace zel
