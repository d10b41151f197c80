#include "notify/testing/fake_backend.h"

#include <errno.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "notify/raw_record.h"

namespace YULO {
namespace YULOTIFYD {
namespace testing {

int FakeKernel::Count(std::string_view prefix) const {
  int n = 0;
  for (const auto& call : calls) {
    if (std::string_view(call).substr(0, prefix.size()) == prefix) ++n;
  }
  return n;
}

FakeBackend::FakeBackend(std::shared_ptr<FakeKernel> kernel, const char* name)
    : kernel_(std::move(kernel)), name_(name) {}

FakeBackend::~FakeBackend() { kernel_->destroyed = true; }

int FakeBackend::Init() {
  kernel_->calls.push_back("init");
  if (kernel_->init_fd < 0) {
    errno = kernel_->init_errno;
    return -1;
  }
  return kernel_->init_fd;
}

namespace {

std::string CallText(const char* op, int fd, const std::string& mount,
                     uint32_t mask) {
  char tail[64];
  std::snprintf(tail, sizeof(tail), " 0x%x", mask);
  return std::string(op) + " " + std::to_string(fd) + " " + mount + tail;
}

}  // namespace

int FakeBackend::AddWatch(int fd, const std::string& mount_point,
                          uint32_t mask) {
  kernel_->calls.push_back(CallText("add", fd, mount_point, mask));
  if (fd < 0 || kernel_->init_fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (!kernel_->add_errnos.empty()) {
    const int err = kernel_->add_errnos.front();
    kernel_->add_errnos.pop_front();
    if (err != 0) {
      errno = err;
      return -1;
    }
  }
  return 0;
}

int FakeBackend::RemoveWatch(int fd, const std::string& mount_point,
                             uint32_t mask) {
  kernel_->calls.push_back(CallText("remove", fd, mount_point, mask));
  if (kernel_->remove_errno != 0) {
    errno = kernel_->remove_errno;
    return -1;
  }
  return 0;
}

int FakeBackend::WaitReadable(int fd, const struct timeval& timeout,
                              bool* readable) {
  char text[96];
  std::snprintf(text, sizeof(text), "wait %d %ld.%06ld", fd,
                static_cast<long>(timeout.tv_sec),
                static_cast<long>(timeout.tv_usec));
  kernel_->calls.push_back(text);
  ++kernel_->wait_calls;
  *readable = false;
  if (fd < 0) {
    errno = EBADF;
    return -1;
  }
  if (!kernel_->waits.empty()) {
    const FakeKernel::Wait wait = kernel_->waits.front();
    kernel_->waits.pop_front();
    *readable = wait.readable;
    errno = wait.err;
    return wait.result;
  }
  if (kernel_->reads.empty() && kernel_->read_errnos.empty()) return 0;
  *readable = true;
  return 1;
}

bool FakeBackend::FinishPending() {
  kernel_->calls.push_back("finish");
  const bool any = !kernel_->held_back.empty();
  while (!kernel_->held_back.empty()) {
    kernel_->reads.push_back(std::move(kernel_->held_back.front()));
    kernel_->held_back.pop_front();
  }
  return any;
}

ssize_t FakeBackend::Read(int fd, void* buffer, size_t capacity) {
  kernel_->calls.push_back("read " + std::to_string(fd) + " " +
                           std::to_string(capacity));
  ++kernel_->read_calls;
  if (!kernel_->read_errnos.empty()) {
    const int err = kernel_->read_errnos.front();
    kernel_->read_errnos.pop_front();
    if (err != 0) {
      errno = err;
      return -1;
    }
  }
  if (kernel_->reads.empty()) return 0;
  const std::string chunk = kernel_->reads.front();
  kernel_->reads.pop_front();
  const size_t n = std::min(chunk.size(), capacity);
  std::memcpy(buffer, chunk.data(), n);
  return static_cast<ssize_t>(n);
}

std::string RawRecordBytes(uint32_t mask, uint32_t cookie,
                           std::string_view name) {
  std::string bytes(RawRecordSize(name), '\0');
  WriteRawRecord(reinterpret_cast<uint8_t*>(&bytes[0]), bytes.size(), mask,
                 cookie, name);
  return bytes;
}

int FakeMountEnv::Stat(const std::string& path, struct stat* st) const {
  stat_calls.push_back(path);
  std::string key = path;
  while (key.size() > 1 && key.back() == '/') key.pop_back();
  const auto it = dirs_.find(key);
  if (it == dirs_.end()) {
    errno = ENOENT;
    return -1;
  }
  std::memset(st, 0, sizeof(*st));
  st->st_dev = it->second;
  st->st_mode = S_IFDIR | 0755;
  return 0;
}

bool FakeMountEnv::ReadMountTable(std::string* text) const {
  if (!table_readable_) return false;
  *text = table_;
  return true;
}

}  // namespace testing
}  // namespace YULOTIFYD
}  // namespace YULO
