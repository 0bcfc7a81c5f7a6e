#include "zel/ipc/in_process_connection.h"

#include <gtest/gtest.h>
#include <wx/utils.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

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

// A reader that does not read stops its writer at the capacity instead of
// letting the queue grow.
TEST(InProcessConnectionTest, WritesWaitForRoomAndCloseReleasesThem) {
  auto [first, second] = CInProcessConnection::createPair(1000);
  const std::vector<char> data(2500, 'x');
  std::atomic<bool> written{false};
  std::thread writer([&, out = first->getOutStream()] {
    out->write(data.data(), static_cast<int>(data.size()));
    written = true;
  });
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  EXPECT_FALSE(written.load());
  EXPECT_EQ(CInProcessConnection::getUnreadBytes(second.get()), 1000);
  EXPECT_EQ(CInProcessConnection::getUnreadBytes(first.get()), 0);
  // Reading makes room; everything arrives, in order.
  std::vector<char> back(data.size());
  second->getInStream()->read(back.data(), static_cast<int>(back.size()));
  writer.join();
  EXPECT_TRUE(written.load());
  EXPECT_TRUE(back == data);

  // A writer waiting for room fails when either end closes.
  for (int closeReader = 0; closeReader < 2; ++closeReader) {
    auto ends = CInProcessConnection::createPair(10);
    std::atomic<int> outcome{0};  // 1 written, 2 failed
    std::thread blocked([&, out = ends.first->getOutStream()] {
      try {
        out->write(data.data(), 100);
        outcome = 1;
      } catch (const CIOError& e) {
        outcome = e.getErrorCode() == CIOError::WriteFailed ? 2 : 3;
      }
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_EQ(outcome.load(), 0);
    (closeReader ? ends.second : ends.first)->close();
    blocked.join();
    EXPECT_EQ(outcome.load(), 2) << "reader closed: " << closeReader;
  }
  EXPECT_EQ(CInProcessConnection::getUnreadBytes(nullptr), 0);
}

}  // namespace
}  // namespace zel
