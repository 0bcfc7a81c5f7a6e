#include "zel/ipc/in_process_connection.h"

#include <gtest/gtest.h>
#include <wx/utils.h>

#include <chrono>
#include <string>
#include <thread>

#include "zel/core/error.h"

namespace zel {
namespace {

TEST(InProcessConnectionTest, BytesFlowBothWaysInOrder) {
  auto [first, second] = CInProcessConnection::createPair();
  first->getOutStream()->write("abc", 3);
  first->getOutStream()->write("de", 2);
  second->getOutStream()->write("xy", 2);

  char buffer[8] = {};
  second->getInStream()->read(buffer, 5);
  EXPECT_EQ(std::string(buffer, 5), "abcde");
  EXPECT_EQ(first->getInStream()->readAvailable(buffer, sizeof(buffer)), 2);
  EXPECT_EQ(std::string(buffer, 2), "xy");
  EXPECT_FALSE(first->getInStream()->waitReadable(0));
  EXPECT_EQ(first->getPeerProcessID(), static_cast<int64>(wxGetProcessId()));
}

TEST(InProcessConnectionTest, ClosingOneEndEndsTheOther) {
  auto [first, second] = CInProcessConnection::createPair();
  first->getOutStream()->write("z", 1);
  std::string outcome;
  std::thread reader([&, in = second->getInStream()] {
    char buffer[4];
    // The byte sent before the close arrives; then the end.
    const int got = in->readLax(buffer, sizeof(buffer));
    outcome = std::to_string(got);
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  first->close();
  reader.join();
  EXPECT_EQ(outcome, "1");
  EXPECT_EQ(second->getInStream()->isEndOfStream_NonBlocking(), 1);
  EXPECT_THROW(second->getOutStream()->write("q", 1), CIOError);
  // Dropping the last reference of an end closes it as well.
  auto [third, fourth] = CInProcessConnection::createPair();
  third = nullptr;
  EXPECT_TRUE(fourth->getInStream()->isEndOfStream());
}

}  // namespace
}  // namespace zel
