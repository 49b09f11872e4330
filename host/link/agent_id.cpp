#include "host/link/agent_id.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/uuid/random_generator.hpp>
#include <boost/uuid/uuid_io.hpp>
#include <cctype>
#include <cerrno>

#include "host/link/append_file.h"

namespace {

constexpr size_t kUuidLength = 36;
constexpr mode_t kFileMode = 0600;
constexpr int kSafeFlags = O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY;

bool WriteWhole(int iFile, std::string_view svText) {
  while (!svText.empty()) {
    const ssize_t iWritten = TEMP_FAILURE_RETRY(write(iFile, svText.data(), svText.size()));
    if (iWritten <= 0) {
      return false;
    }
    svText.remove_prefix(static_cast<size_t>(iWritten));
  }
  return fsync(iFile) == 0;
}

// 0 or an errno value.
int MakeFile(const std::string& strFile, const std::string& strText) {
  const std::string strNew = strFile + ".new";
  const int iFile = open(strNew.c_str(), O_WRONLY | O_CREAT | O_TRUNC | kSafeFlags, kFileMode);
  if (iFile < 0) {
    return errno;
  }
  const int iError = WriteWhole(iFile, strText) ? 0 : errno;
  close(iFile);
  if (iError != 0 || rename(strNew.c_str(), strFile.c_str()) != 0) {
    return iError != 0 ? iError : errno;
  }
  const int iDirectory = open(strFile.substr(0, strFile.rfind('/') + 1).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (iDirectory >= 0) {
    static_cast<void>(fsync(iDirectory));
    close(iDirectory);
  }
  return 0;
}

}  // namespace

bool ReadAgentId(std::string_view svText, std::string& strId) {
  if (svText.size() != kUuidLength) {
    return false;
  }
  for (size_t i = 0; i < svText.size(); ++i) {
    const bool bHyphen = i == 8 || i == 13 || i == 18 || i == 23;
    if (bHyphen ? svText[i] != '-' : std::isxdigit(static_cast<unsigned char>(svText[i])) == 0) {
      return false;
    }
  }
  strId.assign(svText);
  std::transform(strId.begin(), strId.end(), strId.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return true;
}

bool LoadAgentId(const std::string& strFile, std::string& strId, std::string& strError) {
  const int iFile = open(strFile.c_str(), O_RDONLY | kSafeFlags);
  if (iFile < 0 && errno != ENOENT) {
    strError = DescribeError("open", strFile, errno);
    return false;
  }
  if (iFile < 0) {
    strId = boost::uuids::to_string(boost::uuids::random_generator()());
    const int iError = MakeFile(strFile, strId + "\n");
    strError = iError != 0 ? DescribeError("write", strFile, iError) : std::string();
    return iError == 0;
  }
  std::array<char, kUuidLength + 2> acText{};
  const ssize_t iRead = TEMP_FAILURE_RETRY(read(iFile, acText.data(), acText.size()));
  const int iError = errno;
  close(iFile);
  if (iRead < 0) {
    strError = DescribeError("read", strFile, iError);
    return false;
  }
  std::string_view svText(acText.data(), static_cast<size_t>(iRead));
  svText = svText.substr(0, svText.find_last_not_of("\r\n") + 1);
  if (!ReadAgentId(svText, strId)) {
    strError = strFile + " does not hold the agent's id, a UUID; remove it to be given a new one";
    return false;
  }
  return true;
}
