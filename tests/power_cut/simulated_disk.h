// One directory on a disk that loses what was not synced when the power goes.
//
// The directory itself is real and always shows what a running program sees. Beside it this model keeps what the disk
// is sure to hold, and every change since. When the power goes, Materialise draws one of the disks that may be found
// afterwards:
// - A file's contents are made durable by fsync or fdatasync of the file, names by fsync of the directory, and neither
//   by the other.
// - Data reaches the disk by whole sectors of 512 or 4096 bytes, in any order: each sector holds the state after any of
//   the writes that touched it since the last sync. So a write may be kept, dropped or torn.
// - A file's size may be any that it had since its last sync, whatever became of its data. Sectors that were never
//   written are zero or hold anything. A truncation happens with the change of the size, at once or not at all.
// - Each creation, removal and renaming of a name since the last directory sync may or may not have happened, whichever
//   of the others did. A renaming happens at once or not at all.
// - Besides these, the mild outcomes: nothing unsynced is kept, all of it is, or all before one moment.
// - Files ending in "-shm" are shared memory, not data: they are gone, kept, cleared or filled with anything.
//
// Not thread-safe. Only files directly in the directory are known; each has one name at a time.
#ifndef QMLOGCACHE_POWER_CUT_SIMULATED_DISK_H_
#define QMLOGCACHE_POWER_CUT_SIMULATED_DISK_H_

#include <cstdint>
#include <map>
#include <optional>
#include <random>
#include <string>
#include <string_view>
#include <vector>

class CSimulatedDisk {
 public:
  using FileId = size_t;

  // What is in the directory now is durable.
  explicit CSimulatedDisk(const std::string& strDirectory);

  // --- What the program does ---
  FileId Create(const std::string& strName);
  [[nodiscard]] std::optional<FileId> Find(const std::string& strName) const;
  void Remove(const std::string& strName);
  void Rename(const std::string& strOld, const std::string& strNew);
  void Write(FileId file, uint64_t u64Offset, std::string_view svBytes);
  void Resize(FileId file, uint64_t u64Size);
  void SyncFile(FileId file);
  void SyncNames();

  // --- What becomes of it ---
  // Empty when the directory shows exactly what this model was told; else the first difference. Tells that no change
  // went unseen.
  [[nodiscard]] std::string Difference() const;
  // Puts a disk as it may be found after a power cut into an existing empty directory.
  void Materialise(const std::string& strTarget, std::mt19937_64& random) const;
  // Another process takes over where one was killed.
  void Save(const std::string& strPath) const;
  void Load(const std::string& strPath);

 private:
  struct Change {
    uint64_t u64Time = 0;
    bool bResize = false;
    uint64_t u64Offset = 0;  // of a resize: the new size
    std::string strBytes;
  };
  struct File {
    std::string strDurable;
    std::vector<Change> vecChanges;  // since the last sync
  };
  struct NameChange {
    uint64_t u64Time = 0;
    std::string strRemoved;  // empty: none
    std::string strAdded;    // empty: none
    FileId file = 0;         // of the added name
  };
  using Names = std::map<std::string, FileId>;
  class COutcome;

  static void Apply(const Change& change, std::string& strContents);
  static void Apply(const NameChange& change, Names& names);
  // The first uCount of the writes, as far as they concern the sector that begins at uStart.
  static void ApplyWrites(const std::vector<const Change*>& vecWrites, size_t uCount, size_t uStart,
                          std::string& strSector);
  static std::string Contents(const File& file);
  static std::string ContentsAfterCut(const File& file, COutcome& outcome);

  std::string m_strDirectory;
  std::vector<File> m_vecFiles;
  Names m_durableNames;
  Names m_liveNames;
  std::vector<NameChange> m_vecNameChanges;  // since the last directory sync
  uint64_t m_u64Time = 0;
};

// Whether the name is that of a database's shared memory.
bool IsSharedMemoryName(std::string_view svName);

#endif  // QMLOGCACHE_POWER_CUT_SIMULATED_DISK_H_
