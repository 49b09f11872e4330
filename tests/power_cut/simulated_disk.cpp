#include "tests/power_cut/simulated_disk.h"

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

#include "tests/power_cut/whole_file.h"

namespace {

// --- The saved form: numbers and texts with their lengths, one after another ---
void Put(std::ostream& out, uint64_t u64Number) {
  out << u64Number << ' ';
}
void Put(std::ostream& out, const std::string& strText) {
  out << strText.size() << ' ' << strText;
}
uint64_t GetNumber(std::istream& in) {
  uint64_t u64Number = 0;
  in >> u64Number;
  in.get();
  return u64Number;
}
std::string GetText(std::istream& in) {
  std::string strText(GetNumber(in), '\0');
  in.read(strText.data(), static_cast<std::streamsize>(strText.size()));
  return strText;
}

}  // namespace

bool IsSharedMemoryName(std::string_view svName) {
  return svName.ends_with("-shm");
}

CSimulatedDisk::CSimulatedDisk(const std::string& strDirectory) : m_strDirectory(strDirectory) {
  for (const auto& entry : std::filesystem::directory_iterator(strDirectory)) {
    const std::string strName = entry.path().filename().string();
    if (!IsSharedMemoryName(strName)) {
      m_durableNames[strName] = m_vecFiles.size();
      m_vecFiles.push_back({ReadAll(entry.path().string()), {}});
    }
  }
  m_liveNames = m_durableNames;
}

CSimulatedDisk::FileId CSimulatedDisk::Create(const std::string& strName) {
  const FileId file = m_vecFiles.size();
  m_vecFiles.emplace_back();
  m_liveNames[strName] = file;
  m_vecNameChanges.push_back({++m_u64Time, {}, strName, file});
  return file;
}

std::optional<CSimulatedDisk::FileId> CSimulatedDisk::Find(const std::string& strName) const {
  const auto it = m_liveNames.find(strName);
  return it == m_liveNames.end() ? std::nullopt : std::optional(it->second);
}

void CSimulatedDisk::Remove(const std::string& strName) {
  m_liveNames.erase(strName);
  m_vecNameChanges.push_back({++m_u64Time, strName, {}, 0});
}

void CSimulatedDisk::Rename(const std::string& strOld, const std::string& strNew) {
  const FileId file = m_liveNames.at(strOld);
  m_vecNameChanges.push_back({++m_u64Time, strOld, strNew, file});
  Apply(m_vecNameChanges.back(), m_liveNames);
}

void CSimulatedDisk::Write(FileId file, uint64_t u64Offset, std::string_view svBytes) {
  m_vecFiles.at(file).vecChanges.push_back({++m_u64Time, false, u64Offset, std::string(svBytes)});
}

void CSimulatedDisk::Resize(FileId file, uint64_t u64Size) {
  m_vecFiles.at(file).vecChanges.push_back({++m_u64Time, true, u64Size, {}});
}

void CSimulatedDisk::SyncFile(FileId file) {
  File& synced = m_vecFiles.at(file);
  synced.strDurable = Contents(synced);
  synced.vecChanges.clear();
}

void CSimulatedDisk::SyncNames() {
  m_durableNames = m_liveNames;
  m_vecNameChanges.clear();
}

void CSimulatedDisk::Apply(const Change& change, std::string& strContents) {
  if (change.bResize) {
    strContents.resize(change.u64Offset);
    return;
  }
  strContents.resize(std::max<size_t>(strContents.size(), change.u64Offset + change.strBytes.size()));
  strContents.replace(change.u64Offset, change.strBytes.size(), change.strBytes);
}

void CSimulatedDisk::Apply(const NameChange& change, Names& names) {
  if (!change.strRemoved.empty()) {
    names.erase(change.strRemoved);
  }
  if (!change.strAdded.empty()) {
    names[change.strAdded] = change.file;
  }
}

std::string CSimulatedDisk::Contents(const File& file) {
  std::string strContents = file.strDurable;
  for (const Change& change : file.vecChanges) {
    Apply(change, strContents);
  }
  return strContents;
}

std::string CSimulatedDisk::Difference() const {
  size_t uSeen = 0;
  for (const auto& entry : std::filesystem::directory_iterator(m_strDirectory)) {
    const std::string strName = entry.path().filename().string();
    if (IsSharedMemoryName(strName)) {
      continue;
    }
    const auto file = Find(strName);
    if (!file) {
      return strName + " was made unseen";
    }
    if (ReadAll(entry.path().string()) != Contents(m_vecFiles[*file])) {
      return strName + " was changed unseen";
    }
    ++uSeen;
  }
  return uSeen == m_liveNames.size() ? std::string() : "a file was removed unseen";
}

void CSimulatedDisk::Save(const std::string& strPath) const {
  std::ofstream out(strPath, std::ios::binary);
  Put(out, m_u64Time);
  Put(out, m_vecFiles.size());
  for (const File& file : m_vecFiles) {
    Put(out, file.strDurable);
    Put(out, file.vecChanges.size());
    for (const Change& change : file.vecChanges) {
      Put(out, change.u64Time);
      Put(out, change.bResize ? 1U : 0U);
      Put(out, change.u64Offset);
      Put(out, change.strBytes);
    }
  }
  for (const Names* pNames : {&m_durableNames, &m_liveNames}) {
    Put(out, pNames->size());
    for (const auto& [strName, file] : *pNames) {
      Put(out, strName);
      Put(out, file);
    }
  }
  Put(out, m_vecNameChanges.size());
  for (const NameChange& change : m_vecNameChanges) {
    Put(out, change.u64Time);
    Put(out, change.strRemoved);
    Put(out, change.strAdded);
    Put(out, change.file);
  }
  if (!out.flush()) {
    throw std::runtime_error("cannot write " + strPath);
  }
}

void CSimulatedDisk::Load(const std::string& strPath) {
  std::ifstream in(strPath, std::ios::binary);
  m_u64Time = GetNumber(in);
  m_vecFiles.assign(GetNumber(in), {});
  for (File& file : m_vecFiles) {
    file.strDurable = GetText(in);
    file.vecChanges.resize(GetNumber(in));
    for (Change& change : file.vecChanges) {
      change.u64Time = GetNumber(in);
      change.bResize = GetNumber(in) != 0;
      change.u64Offset = GetNumber(in);
      change.strBytes = GetText(in);
    }
  }
  for (Names* pNames : {&m_durableNames, &m_liveNames}) {
    pNames->clear();
    for (uint64_t u64Left = GetNumber(in); u64Left > 0; --u64Left) {
      const std::string strName = GetText(in);
      (*pNames)[strName] = GetNumber(in);
    }
  }
  m_vecNameChanges.resize(GetNumber(in));
  for (NameChange& change : m_vecNameChanges) {
    change.u64Time = GetNumber(in);
    change.strRemoved = GetText(in);
    change.strAdded = GetText(in);
    change.file = GetNumber(in);
  }
  if (!in) {
    throw std::runtime_error("cannot read " + strPath);
  }
}
