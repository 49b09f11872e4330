#include "host/config/path_obstacles.h"

#include <filesystem>
#include <system_error>

namespace {

std::string Exists(const std::filesystem::path& path, const char* pszNot) {
  std::error_code ignored;
  return path.string() + (std::filesystem::is_directory(path, ignored) ? " is a directory" : pszNot);
}

// A file must be of its type itself: the host follows no symbolic link there.
std::string FileObstacle(const std::string& strPath, std::filesystem::file_type type, const char* pszNot) {
  std::error_code ignored;
  const std::filesystem::file_status status = std::filesystem::symlink_status(strPath, ignored);
  if (std::filesystem::exists(status)) {
    return status.type() == type ? std::string() : Exists(strPath, pszNot);
  }
  return DirectoryObstacle(std::filesystem::path(strPath).parent_path().string());
}

}  // namespace

std::string DirectoryObstacle(const std::string& strPath) {
  // The nearest thing that is there must be a directory, in which the others can be made.
  for (std::filesystem::path path(strPath); path.has_relative_path(); path = path.parent_path()) {
    std::error_code ignored;
    const std::filesystem::file_status status = std::filesystem::status(path, ignored);
    if (std::filesystem::is_directory(status)) {
      return {};
    }
    if (std::filesystem::exists(status)) {
      return path.string() + " is not a directory";
    }
  }
  return {};
}

std::string SocketObstacle(const std::string& strPath) {
  return FileObstacle(strPath, std::filesystem::file_type::socket, " is there and is not a socket");
}

std::string RecordFileObstacle(const std::string& strPath) {
  return FileObstacle(strPath, std::filesystem::file_type::regular, " is there and is not a regular file");
}
