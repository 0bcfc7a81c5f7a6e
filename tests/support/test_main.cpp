// GoogleTest main of every zel test executable: the library is brought up
// as a program would, the log file is switched off (tests capture entries
// with CLogCapture instead), and the singletons are disposed at the end.
//
// With "--zel-child=<name>" the executable is a child process of a
// multi-process test instead: it runs the function registered with
// ZEL_TEST_CHILD(name) and exits with its result (see child_process.h).
#include <gtest/gtest.h>

#include "child_process.h"
#include "zel/init/zel_init.h"
#include "zel/log/xml_log.h"

int main(int argc, char** argv) {
  int childResult = 0;
  if (zel::test::runTestChildIfRequested(argc, argv, childResult)) return childResult;

  testing::InitGoogleTest(&argc, argv);
  int result;
  {
    zel::CZelInit init;
    zel::CXMLLog::getGlobal()->setFileEnabled(false);
    result = RUN_ALL_TESTS();
  }
  zel::CZelInit::onApplicationExit();
  return result;
}
