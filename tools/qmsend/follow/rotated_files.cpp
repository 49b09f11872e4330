#include "tools/qmsend/follow/rotated_files.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <filesystem>
#include <functional>
#include <system_error>
#include <tuple>

namespace {

constexpr std::string_view kCompressed[] = {".gz", ".xz", ".bz2", ".zst", ".lz4", ".lzma", ".Z", ".zip"};

// As CLogFile::Open, but a file that is not there is no error.
std::shared_ptr<CLogFile> OpenIfThere(const std::string& strPath, std::string& strError) {
  auto pFile = CLogFile::Open(strPath, strError);
  if (pFile || errno == ENOENT) {
    strError.clear();
  }
  return pFile;
}

// Opens a listed file unless the name belongs to another by now.
std::shared_ptr<CLogFile> OpenListed(const RotatedFile& file, std::string& strError) {
  auto pFile = OpenIfThere(file.strPath, strError);
  return pFile && pFile->IsAt(file.info) ? pFile : nullptr;
}

std::shared_ptr<CLogFile> OpenListed(const RotatedFile& file) {
  std::string strIgnored;
  return OpenListed(file, strIgnored);
}

bool AreSame(const std::vector<RotatedFile>& vecLeft, const std::vector<RotatedFile>& vecRight) {
  return std::equal(vecLeft.begin(), vecLeft.end(), vecRight.begin(), vecRight.end(),
                    [](const RotatedFile& left, const RotatedFile& right) {
                      return left.strPath == right.strPath && left.info.st_dev == right.info.st_dev &&
                             left.info.st_ino == right.info.st_ino;
                    });
}

// Has fnLook look at the files, again as long as a rotation went on meanwhile: a directory that is read while names move
// may show a file twice or not at all.
template <typename Function>
auto WhileNothingMoves(const std::string& strLog, Function fnLook) {
  constexpr int kTries = 1000;
  std::vector<RotatedFile> vecBefore = ListRotatedFiles(strLog);
  for (int i = 0;; ++i) {
    auto result = fnLook(vecBefore);
    std::vector<RotatedFile> vecAfter = ListRotatedFiles(strLog);
    if (AreSame(vecBefore, vecAfter)) {
      return result;
    }
    if (i == kTries) {
      return decltype(result){};
    }
    vecBefore = std::move(vecAfter);
  }
}

using ComesAfter = std::function<bool(const RotatedFile&)>;

// The first of the files that come after, or else the log, and what of them cannot be read.
Successor FirstOf(const std::string& strLog, const std::vector<RotatedFile>& vecFiles, const ComesAfter& fnComesAfter,
                  const CLogFile* pCurrent) {
  Successor successor;
  for (const RotatedFile& file : vecFiles) {
    if (!fnComesAfter(file)) {
      continue;
    }
    if (file.bCompressed) {
      // While a file is being compressed it stands beside the compressed one.
      if (std::none_of(vecFiles.begin(), vecFiles.end(), [&](const RotatedFile& other) {
            return !other.bCompressed && file.strPath.starts_with(other.strPath + ".");
          })) {
        successor.vecUnreadable.push_back(file.strPath);
      }
      continue;
    }
    successor.pFile = OpenListed(file, successor.strError);
    return successor;
  }
  auto pLog = OpenIfThere(strLog, successor.strError);
  struct stat info {};
  if (pLog && !(pCurrent != nullptr && ::fstat(pLog->Descriptor(), &info) == 0 && pCurrent->IsAt(info))) {
    successor.pFile = std::move(pLog);
  }
  return successor;
}

Successor FirstAfter(const std::string& strLog, const std::vector<RotatedFile>& vecFiles, const timespec& time,
                     const CLogFile* pCurrent) {
  return FirstOf(
      strLog, vecFiles, [&](const RotatedFile& file) { return IsEarlier(time, file.info.st_mtim); }, pCurrent);
}

std::shared_ptr<CLogFile> FindCopyAmong(const std::vector<RotatedFile>& vecFiles, const FollowPosition& position) {
  // The newest first: a copy is made at the rotation.
  for (auto file = vecFiles.rbegin(); file != vecFiles.rend() && !position.strHead.empty(); ++file) {
    auto pFile = file->bCompressed ? nullptr : OpenListed(*file);
    if (pFile && pFile->Holds(position)) {
      return pFile;
    }
  }
  return nullptr;
}

}  // namespace

bool IsEarlier(const timespec& first, const timespec& second) {
  return std::tie(first.tv_sec, first.tv_nsec) < std::tie(second.tv_sec, second.tv_nsec);
}

std::optional<RotationSuffix> ParseRotationSuffix(std::string_view svSuffix) {
  RotationSuffix suffix;
  for (const std::string_view svEnding : kCompressed) {
    if (svSuffix.ends_with(svEnding)) {
      suffix.bCompressed = true;
      svSuffix.remove_suffix(svEnding.size());
      break;
    }
  }
  if (svSuffix == ".old") {
    return suffix;
  }
  if (svSuffix.size() < 2 || (svSuffix[0] != '.' && svSuffix[0] != '-') ||
      std::isdigit(static_cast<unsigned char>(svSuffix[1])) == 0 ||
      svSuffix.find_first_not_of("0123456789-._:T") != std::string_view::npos) {
    return std::nullopt;
  }
  uint64_t u64Number = 0;
  const char* pEnd = svSuffix.data() + svSuffix.size();
  const auto result = std::from_chars(svSuffix.data() + 1, pEnd, u64Number);
  // A greater one is a date or a time.
  constexpr uint64_t kGreatestNumber = 99999;
  if (svSuffix[0] == '.' && result.ec == std::errc() && result.ptr == pEnd && u64Number <= kGreatestNumber) {
    suffix.number = u64Number;
  }
  return suffix;
}

std::vector<RotatedFile> ListRotatedFiles(const std::string& strLog) {
  const std::filesystem::path log(strLog);
  const std::string strName = log.filename().string();
  std::vector<RotatedFile> vecFiles;
  std::error_code error;
  for (std::filesystem::directory_iterator entry(log.parent_path(), error), end; !error && entry != end;
       entry.increment(error)) {
    const std::string strEntry = entry->path().filename().string();
    if (strEntry.compare(0, strName.size(), strName) != 0) {
      continue;
    }
    const auto suffix = ParseRotationSuffix(std::string_view(strEntry).substr(strName.size()));
    RotatedFile file;
    if (suffix && ::stat(entry->path().c_str(), &file.info) == 0 && S_ISREG(file.info.st_mode)) {
      file.strPath = entry->path().string();
      file.number = suffix->number;
      file.bCompressed = suffix->bCompressed;
      vecFiles.push_back(std::move(file));
    }
  }
  std::sort(vecFiles.begin(), vecFiles.end(), [](const RotatedFile& left, const RotatedFile& right) {
    if (left.number && right.number) {
      return *left.number > *right.number;
    }
    if (left.number.has_value() != right.number.has_value()) {
      return right.number.has_value();  // which scheme is older cannot be known; each stays together
    }
    const timespec& leftTime = left.info.st_mtim;
    const timespec& rightTime = right.info.st_mtim;
    return std::tie(leftTime.tv_sec, leftTime.tv_nsec, left.strPath) <
           std::tie(rightTime.tv_sec, rightTime.tv_nsec, right.strPath);
  });
  return vecFiles;
}

std::shared_ptr<CLogFile> FindPosition(const std::string& strLog, const FollowPosition& position,
                                       std::string& strError) {
  const auto fnIsIt = [&](const std::shared_ptr<CLogFile>& pFile) {
    return pFile && pFile->Device() == position.u64Device && pFile->Inode() == position.u64Inode &&
           pFile->Holds(position);
  };
  return WhileNothingMoves(strLog, [&](const std::vector<RotatedFile>& vecFiles) {
    auto pLog = OpenIfThere(strLog, strError);
    if (fnIsIt(pLog)) {
      return pLog;
    }
    for (const RotatedFile& file : vecFiles) {
      if (file.bCompressed || file.info.st_ino != position.u64Inode || file.info.st_dev != position.u64Device) {
        continue;
      }
      std::string strFileError;
      auto pFile = OpenListed(file, strFileError);
      if (fnIsIt(pFile)) {
        return pFile;
      }
      if (!strFileError.empty()) {
        strError = strFileError;
      }
    }
    auto pCopy = FindCopyAmong(vecFiles, position);
    return !pCopy && pLog && !position.strHead.empty() && pLog->Holds(position) ? pLog : pCopy;
  });
}

std::shared_ptr<CLogFile> FindCopy(const std::string& strLog, const FollowPosition& position) {
  return WhileNothingMoves(strLog,
                           [&](const std::vector<RotatedFile>& vecFiles) { return FindCopyAmong(vecFiles, position); });
}

Successor FindSuccessor(const std::string& strLog, const CLogFile& current) {
  return WhileNothingMoves(strLog, [&](const std::vector<RotatedFile>& vecFiles) {
    const auto self = std::find_if(vecFiles.begin(), vecFiles.end(),
                                   [&](const RotatedFile& file) { return current.IsAt(file.info); });
    if (self == vecFiles.end()) {
      return FirstAfter(strLog, vecFiles, current.Modified(), &current);
    }
    return FirstOf(
        strLog, vecFiles,
        [&](const RotatedFile& file) { return &file > &*self && file.number.has_value() == self->number.has_value(); },
        &current);
  });
}

Successor FindSuccessor(const std::string& strLog, const timespec& time) {
  return WhileNothingMoves(
      strLog, [&](const std::vector<RotatedFile>& vecFiles) { return FirstAfter(strLog, vecFiles, time, nullptr); });
}
