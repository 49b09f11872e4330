// The loader of the comparison with other log daemons: the same lines for everybody.
//
//   peer_loader send COUNT               writes the lines to standard output
//   peer_loader send COUNT SOCKET        writes them to a Unix stream socket
//   peer_loader check COUNT plain FILE   is every line in the file, whole and exactly once? Prints the counts.
//   peer_loader check COUNT json FILE    the same for objects that hold them as "message"
//
// Exit status: 0 when that worked and, for check, when nothing is missing, doubled or foreign; 1 otherwise; 2 for a
// wrong command line.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <stdexcept>
#include <string>
#include <string_view>
#include <system_error>
#include <vector>

#include "bench/peers/loader_lines.h"
#include "bench/peers/output_check.h"

namespace {

constexpr int kUsage = 2;
constexpr size_t kWriteSize = 64U << 10;

[[noreturn]] void Fail(const std::string& strWhat) {
  throw std::system_error(errno, std::generic_category(), strWhat);
}

int Connect(const std::string& strPath) {
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (strPath.size() >= sizeof(address.sun_path)) {
    throw std::runtime_error("the socket's path is too long: " + strPath);
  }
  std::memcpy(address.sun_path, strPath.c_str(), strPath.size());
  const int iSocket = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (iSocket < 0 || ::connect(iSocket, reinterpret_cast<const sockaddr*>(&address), sizeof(address)) != 0) {
    Fail(strPath);
  }
  return iSocket;
}

void WriteAll(int iOut, std::string_view svBytes) {
  while (!svBytes.empty()) {
    const ssize_t iWritten = ::write(iOut, svBytes.data(), svBytes.size());
    if (iWritten > 0) {
      svBytes.remove_prefix(static_cast<size_t>(iWritten));
    } else if (errno != EINTR) {
      Fail("write");
    }
  }
}

void Send(uint64_t u64Count, int iOut) {
  CLoaderLines lines;
  std::string strBuffer;
  strBuffer.reserve(kWriteSize + kLineSize + 1);
  for (uint64_t u64Number = 0; u64Number < u64Count; ++u64Number) {
    strBuffer += lines.Line(u64Number);
    strBuffer += '\n';
    if (strBuffer.size() >= kWriteSize) {
      WriteAll(iOut, strBuffer);
      strBuffer.clear();
    }
  }
  WriteAll(iOut, strBuffer);
  if (::close(iOut) != 0) {
    Fail("close");
  }
}

int Check(uint64_t u64Count, OutputForm form, const std::string& strFile) {
  const OutputCounts counts = CheckOutput(strFile, form, u64Count);
  std::printf("lines %llu distinct %llu repeated %llu foreign %llu\n", static_cast<unsigned long long>(counts.u64Lines),
              static_cast<unsigned long long>(counts.u64Distinct), static_cast<unsigned long long>(counts.u64Repeated),
              static_cast<unsigned long long>(counts.u64Foreign));
  return counts.u64Distinct == u64Count && counts.u64Repeated == 0 && counts.u64Foreign == 0 ? 0 : 1;
}

int Run(const std::vector<std::string>& vecArguments) {
  uint64_t u64Count = 0;
  const size_t uArguments = vecArguments.size();
  if (uArguments < 2) {
    return kUsage;
  }
  const std::string& strCount = vecArguments[1];
  const auto result = std::from_chars(strCount.data(), strCount.data() + strCount.size(), u64Count);
  if (result.ec != std::errc() || result.ptr != strCount.data() + strCount.size()) {
    return kUsage;
  }
  if (vecArguments[0] == "send" && uArguments <= 3) {
    Send(u64Count, uArguments == 3 ? Connect(vecArguments[2]) : STDOUT_FILENO);
    return 0;
  }
  if (vecArguments[0] == "check" && uArguments == 4 && (vecArguments[2] == "plain" || vecArguments[2] == "json")) {
    return Check(u64Count, vecArguments[2] == "json" ? OutputForm::Json : OutputForm::Plain, vecArguments[3]);
  }
  return kUsage;
}

}  // namespace

int main(int iCount, char** ppszArguments) {
  try {
    const int iStatus = Run({ppszArguments + 1, ppszArguments + iCount});
    if (iStatus == kUsage) {
      std::fprintf(stderr, "usage: peer_loader send COUNT [SOCKET] | check COUNT plain|json FILE\n");
    }
    return iStatus;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "peer_loader: %s\n", error.what());
    return 1;
  }
}
