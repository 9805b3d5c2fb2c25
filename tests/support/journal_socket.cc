#include "support/journal_socket.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>
#include <stdexcept>
#include <vector>

namespace kp::test {

JournalSocket::JournalSocket(std::filesystem::path path) : path_(std::move(path)), buffer_(16 << 20) {
  fd_ = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string text = path_.string();
  if (fd_ < 0 || text.size() >= sizeof address.sun_path) throw std::runtime_error("cannot make a journal socket");
  std::memcpy(address.sun_path, text.data(), text.size());
  if (::bind(fd_, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    ::close(fd_);
    throw std::runtime_error("cannot bind " + text);
  }
}

JournalSocket::~JournalSocket() {
  ::close(fd_);
  ::unlink(path_.c_str());
}

std::optional<JournalFields> JournalSocket::receive(std::chrono::milliseconds timeout) {
  pollfd watch{fd_, POLLIN, 0};
  if (::poll(&watch, 1, static_cast<int>(timeout.count())) <= 0) return std::nullopt;
  std::vector<char>& buffer = buffer_;
  alignas(cmsghdr) char control[CMSG_SPACE(sizeof(int))] = {};
  iovec part{buffer.data(), buffer.size()};
  msghdr message{};
  message.msg_iov = &part;
  message.msg_iovlen = 1;
  message.msg_control = control;
  message.msg_controllen = sizeof control;
  const ssize_t n = ::recvmsg(fd_, &message, MSG_CMSG_CLOEXEC);
  if (n < 0) return std::nullopt;
  std::string bytes(buffer.data(), static_cast<std::size_t>(n));
  for (cmsghdr* header = CMSG_FIRSTHDR(&message); header; header = CMSG_NXTHDR(&message, header)) {
    if (header->cmsg_level != SOL_SOCKET || header->cmsg_type != SCM_RIGHTS) continue;
    int file = -1;
    std::memcpy(&file, CMSG_DATA(header), sizeof file);
    struct stat info {};
    ::fstat(file, &info);
    bytes.assign(static_cast<std::size_t>(info.st_size), '\0');
    EXPECT_EQ(::pread(file, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    ::close(file);
  }
  auto fields = parseJournalEntry(bytes);
  EXPECT_TRUE(fields) << "malformed entry";
  return fields ? fields : JournalFields{};
}

int JournalSocket::drain() {
  int count = 0;
  std::vector<char> buffer(64 << 10);
  while (::recv(fd_, buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC) >= 0) ++count;
  return count;
}

std::optional<JournalFields> parseJournalEntry(const std::string& bytes) {
  JournalFields fields;
  std::size_t i = 0;
  while (i < bytes.size()) {
    const std::size_t lineEnd = bytes.find('\n', i);
    if (lineEnd == std::string::npos) return std::nullopt;
    const std::size_t equals = bytes.find('=', i);
    if (equals != std::string::npos && equals < lineEnd) {
      fields[bytes.substr(i, equals - i)] = bytes.substr(equals + 1, lineEnd - equals - 1);
      i = lineEnd + 1;
      continue;
    }
    // NAME\n, 64-bit little-endian length, value, \n
    const std::string name = bytes.substr(i, lineEnd - i);
    if (lineEnd + 9 > bytes.size()) return std::nullopt;
    std::uint64_t length = 0;
    for (int k = 7; k >= 0; --k) length = (length << 8) | static_cast<unsigned char>(bytes[lineEnd + 1 + k]);
    const std::size_t start = lineEnd + 9;
    if (length > bytes.size() - start || start + length >= bytes.size() || bytes[start + length] != '\n') {
      return std::nullopt;
    }
    fields[name] = bytes.substr(start, length);
    i = start + length + 1;
  }
  return fields;
}

}  // namespace kp::test
