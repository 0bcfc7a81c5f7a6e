#include "zel/init/zel_init.h"

#include <gtest/gtest.h>

#include <cstdlib>

#include "zel/util/cached_env_vars.h"
#include "zel/core/thread_local_storage.h"

namespace zel {
namespace {

// The test main holds one CZelInit for the whole run.
TEST(ZelInitTest, FurtherInitialisersFindTheLibraryUp) {
  P<CThreadLocalStorageManager> tls = CThreadLocalStorageManager::get();
  {
    CZelInit second(false);
    EXPECT_EQ(CThreadLocalStorageManager::get().get(), tls.get());
  }
  // Destroying a CZelInit leaves the library usable; only
  // onApplicationExit() disposes it.
  EXPECT_EQ(CThreadLocalStorageManager::get().get(), tls.get());
}

TEST(ZelInitTest, EnvironmentIsCachedAtStart) {
  P<CCachedEnvVars> env = CCachedEnvVars::get();
  const char* path = std::getenv("PATH");
  ASSERT_NE(path, nullptr);
  EXPECT_TRUE(env->has("PATH"));
  EXPECT_EQ(env->getValue("PATH"), String(path));
  EXPECT_FALSE(env->has("ZEL_SURELY_NOT_SET_42"));
  EXPECT_EQ(env->getValue("ZEL_SURELY_NOT_SET_42", "fallback"), "fallback");
#if defined(_WIN32)
  EXPECT_TRUE(env->has("path"));  // Windows names ignore case
#endif
}

}  // namespace
}  // namespace zel
