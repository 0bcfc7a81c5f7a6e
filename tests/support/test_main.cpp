// GoogleTest main of every zel test executable: the library is brought up
// as a program would, the log file is switched off (tests capture entries
// with CLogCapture instead), and the singletons are disposed at the end.
#include <gtest/gtest.h>

#include "zel/core/zel_init.h"
#include "zel/log/xml_log.h"

int main(int argc, char** argv) {
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
