#include "notify/testing/kernel_environment.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sstream>

#include "base/errno_text.h"
#include "notify/testing/scratch_mounts.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

namespace {

class KernelEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    const std::string not_root = RequireRoot();
    ASSERT_TRUE(not_root.empty()) << not_root;
    const std::string ns = EnterPrivateMountNamespace();
    ASSERT_TRUE(ns.empty()) << ns;
    lock_ = LockFileExclusive("/tmp/yulonotify-kernel-tests.lock");
    ASSERT_TRUE(lock_.Valid())
        << "cannot lock /tmp/yulonotify-kernel-tests.lock: "
        << ErrnoText(errno);
  }
  void TearDown() override { lock_.Reset(); }

 private:
  UniqueFd lock_;
};

::testing::Environment* const kEnvironment =
    ::testing::AddGlobalTestEnvironment(new KernelEnvironment);

}  // namespace

std::vector<NotifyEvent> Drain(YULotify& notify) {
  std::vector<NotifyEvent> events;
  NotifyEvent event;
  while (notify.HasEvent()) {
    if (notify.ReadEvent(event)) events.push_back(event);
  }
  return events;
}

uint32_t MaskOf(const std::vector<NotifyEvent>& events,
                const std::string& path) {
  uint32_t mask = 0;
  for (const auto& event : events) {
    if (GetFullPath(event) == path) mask |= event.mask;
  }
  return mask;
}

std::vector<Change> Changes(const std::vector<NotifyEvent>& events) {
  std::vector<Change> changes;
  for (const auto& event : events) changes.emplace_back(event.mask, event.path);
  return changes;
}

std::string Describe(const std::vector<NotifyEvent>& events) {
  std::ostringstream out;
  out << events.size() << " events";
  for (const auto& event : events) out << "\n  " << event;
  return out.str();
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
