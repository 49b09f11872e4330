// What a power cut leaves of a simulated disk.
#include <algorithm>
#include <filesystem>
#include <iterator>
#include <set>

#include "tests/power_cut/simulated_disk.h"
#include "tests/power_cut/whole_file.h"

namespace {

constexpr size_t kSmallSector = 512;
constexpr size_t kLargeSector = 4096;

std::string RandomBytes(size_t uSize, std::mt19937_64& random) {
  std::string strBytes(uSize, '\0');
  std::generate(strBytes.begin(), strBytes.end(), [&random] { return static_cast<char>(random()); });
  return strBytes;
}

size_t Below(std::mt19937_64& random, size_t uBound) {
  return std::uniform_int_distribution<size_t>(0, uBound - 1)(random);
}

}  // namespace

// How one power cut ends: which of several states is found.
class CSimulatedDisk::COutcome {
 public:
  COutcome(std::mt19937_64& random, uint64_t u64First, uint64_t u64Last)
      : m_random(random),
        m_uSector(Below(random, 2) == 0 ? kSmallSector : kLargeSector),
        m_bGarbage(Below(random, 4) == 0),
        m_u64Moment(u64First + Below(random, u64Last - u64First + 1)) {
    constexpr Kind kKinds[] = {Kind::Nothing,   Kind::Everything, Kind::Moment,   Kind::Moment,
                               Kind::Arbitrary, Kind::Arbitrary,  Kind::Arbitrary};
    m_kind = kKinds[Below(random, std::size(kKinds))];
    constexpr double kShares[] = {0.1, 0.5, 0.9};
    m_dKept = kShares[Below(random, std::size(kShares))];
  }

  // How many of the changes, which come in order of time, have reached one place of the disk.
  template <typename Changes>
  size_t Reached(const Changes& changes) {
    switch (m_kind) {
      case Kind::Nothing:
        return 0;
      case Kind::Everything:
        return changes.size();
      case Kind::Moment:
        break;
      case Kind::Arbitrary:
        if (std::bernoulli_distribution(kAllOrNone)(m_random)) {
          return Kept() ? changes.size() : 0;
        }
        return Below(m_random, changes.size() + 1);
    }
    size_t uReached = 0;
    while (uReached < changes.size() && TimeOf(changes[uReached]) < m_u64Moment) {
      ++uReached;
    }
    // The one at the very moment is torn.
    if (uReached < changes.size() && TimeOf(changes[uReached]) == m_u64Moment && Below(m_random, 2) == 0) {
      ++uReached;
    }
    return uReached;
  }

  // Whether a change of a name has happened.
  bool Happened(const NameChange& change) {
    switch (m_kind) {
      case Kind::Nothing:
        return false;
      case Kind::Everything:
        return true;
      case Kind::Moment:
        return change.u64Time < m_u64Moment || (change.u64Time == m_u64Moment && Below(m_random, 2) == 0);
      case Kind::Arbitrary:
        break;
    }
    return Kept();
  }

  size_t Sector() const { return m_uSector; }
  bool Garbage() const { return m_bGarbage; }
  std::mt19937_64& Random() { return m_random; }

 private:
  enum class Kind { Nothing, Everything, Moment, Arbitrary };
  static constexpr double kAllOrNone = 0.6;

  static uint64_t TimeOf(const Change& change) { return change.u64Time; }
  static uint64_t TimeOf(const Change* pChange) { return pChange->u64Time; }
  bool Kept() { return std::bernoulli_distribution(m_dKept)(m_random); }

  std::mt19937_64& m_random;
  size_t m_uSector;
  bool m_bGarbage;
  uint64_t m_u64Moment;
  Kind m_kind = Kind::Nothing;
  double m_dKept = 0;
};

void CSimulatedDisk::ApplyWrites(const std::vector<const Change*>& vecWrites, size_t uCount, size_t uStart,
                                 std::string& strSector) {
  for (size_t i = 0; i < uCount; ++i) {
    const Change& change = *vecWrites[i];
    const size_t uFrom = std::max<size_t>(change.u64Offset, uStart) - uStart;
    const size_t uSkipped = uStart + uFrom - change.u64Offset;
    const size_t uLength = std::min(change.strBytes.size() - uSkipped, strSector.size() - uFrom);
    strSector.replace(uFrom, uLength, change.strBytes, uSkipped, uLength);
  }
}

std::string CSimulatedDisk::ContentsAfterCut(const File& file, COutcome& outcome) {
  if (file.vecChanges.empty()) {
    return file.strDurable;
  }
  size_t uSize = file.strDurable.size();
  size_t uLargest = uSize;
  std::vector<size_t> vecSizes{uSize};  // the first is the durable one
  for (const Change& change : file.vecChanges) {
    uSize = change.bResize ? change.u64Offset : std::max<size_t>(uSize, change.u64Offset + change.strBytes.size());
    uLargest = std::max(uLargest, uSize);
    vecSizes.push_back(uSize);
  }
  const size_t uSizeChanges = outcome.Reached(file.vecChanges);
  const size_t uFinalSize = vecSizes[uSizeChanges];
  const size_t uSector = outcome.Sector();
  std::string strFound;
  for (size_t uStart = 0; uStart < uFinalSize; uStart += uSector) {
    const size_t uEnd = uStart + uSector;
    const bool bOnDisk = uStart < file.strDurable.size();
    std::string strSector = bOnDisk ? file.strDurable.substr(uStart, uSector) : std::string();
    strSector.resize(uSector);
    std::vector<const Change*> vecWrites;  // since the last truncation that happened
    bool bTouched = bOnDisk;
    for (size_t i = 0; i < file.vecChanges.size(); ++i) {
      const Change& change = file.vecChanges[i];
      if (!change.bResize) {
        if (change.u64Offset < uEnd && change.u64Offset + change.strBytes.size() > uStart) {
          vecWrites.push_back(&change);
        }
      } else if (i < uSizeChanges && change.u64Offset < uEnd) {
        // What was there before the truncation must not come back; what it left of the sector may be of any age.
        ApplyWrites(vecWrites, change.u64Offset > uStart ? outcome.Reached(vecWrites) : 0, uStart, strSector);
        vecWrites.clear();
        const size_t uFrom = std::max<size_t>(change.u64Offset, uStart) - uStart;
        std::fill(strSector.begin() + static_cast<std::ptrdiff_t>(uFrom), strSector.end(), '\0');
        bTouched = bTouched && uFrom != 0;
      }
    }
    const size_t uReached = vecWrites.empty() ? 0 : outcome.Reached(vecWrites);
    if (uReached == 0 && !bTouched && outcome.Garbage()) {
      strSector = RandomBytes(uSector, outcome.Random());
    }
    ApplyWrites(vecWrites, uReached, uStart, strSector);
    strFound += strSector;
  }
  strFound.resize(uFinalSize);
  return strFound;
}

void CSimulatedDisk::Materialise(const std::string& strTarget, std::mt19937_64& random) const {
  uint64_t u64First = m_u64Time;
  for (const File& file : m_vecFiles) {
    if (!file.vecChanges.empty()) {
      u64First = std::min(u64First, file.vecChanges.front().u64Time);
    }
  }
  if (!m_vecNameChanges.empty()) {
    u64First = std::min(u64First, m_vecNameChanges.front().u64Time);
  }
  COutcome outcome(random, u64First, m_u64Time);
  Names names = m_durableNames;
  for (const NameChange& change : m_vecNameChanges) {
    if (outcome.Happened(change)) {
      Apply(change, names);
    }
  }
  for (const auto& [strName, file] : names) {
    WriteAll(strTarget + "/" + strName, ContentsAfterCut(m_vecFiles[file], outcome));
  }
  std::set<std::string> setShared;  // in an order that the same seed repeats
  for (const auto& entry : std::filesystem::directory_iterator(m_strDirectory)) {
    const std::string strName = entry.path().filename().string();
    if (IsSharedMemoryName(strName)) {
      setShared.insert(strName);
    }
  }
  for (const std::string& strName : setShared) {
    std::string strBytes = ReadAll(m_strDirectory + "/" + strName);
    switch (Below(random, 4)) {
      case 0:
        continue;
      case 1:
        strBytes.assign(strBytes.size(), '\0');
        break;
      case 2:
        strBytes = RandomBytes(strBytes.size(), random);
        break;
      default:
        break;
    }
    WriteAll(strTarget + "/" + strName, strBytes);
  }
}
