#include "tests/model/file_model.h"

#include "platform/status_codes.h"

namespace {
bool HasZeroByte(const std::string& strText) {
  return strText.find('\0') != std::string::npos;
}
}  // namespace

bool CFileModel::Open(Failure failure) {
  const bool bCreate = m_state == State::Missing || m_state == State::Empty || m_state == State::OneByte;
  if (bCreate && (failure == kOpening || failure == kCreation)) {
    m_state = m_state == State::Missing ? State::Empty : m_state;
    return false;
  }
  if (failure == kOpening) {
    return false;
  }
  if (bCreate) {
    m_state = State::Sound;
  }
  return true;
}

int CFileModel::Insert(const std::vector<RowToWrite>& vecRows, int iDataType, bool bCover, Failure failure) {
  if (!Open(failure)) {
    return kStatusNoConnection;
  }
  const bool bStatementWhole = !HasZeroByte(vecRows.front().row.strProduct);
  if (failure == kInserts || (failure == kPlainInserts && iDataType == 0 && bStatementWhole)) {
    return kStatusInsertFailed;
  }
  if (m_state != State::Sound) {
    return kStatusInsertFailed;
  }
  if (bCover && !m_mapRows.empty()) {
    m_mapRows.erase(m_mapRows.begin());
  }
  for (const auto& [u64DataId, row] : vecRows) {
    if (HasZeroByte(row.strProduct) || HasZeroByte(row.strCombo) || (iDataType == 0 && HasZeroByte(row.strData)) ||
        m_mapRows.contains(u64DataId)) {
      return kStatusInsertFailed;
    }
  }
  for (const auto& [u64DataId, row] : vecRows) {
    m_mapRows[u64DataId] = row;
    m_mapRows[u64DataId].iDataType = iDataType;
  }
  return kStatusOk;
}

int CFileModel::WriteWithRepair(const std::vector<RowToWrite>& vecRows, bool bCover, Failure failure) {
  if (Insert(vecRows, 0, bCover, failure) == kStatusOk) {
    return kStatusOk;
  }
  const int iRet = Insert(vecRows, 1, bCover, failure);
  if (iRet == kStatusOk || !Open(failure)) {
    return iRet;  // written, or not known to be damaged
  }
  if (m_state != State::Damaged) {
    return kStatusOk;  // dropped
  }
  m_state = State::Missing;
  ++m_iRepairs;
  return Insert(vecRows, 1, bCover, failure);
}

int CFileModel::Add(const RowToWrite& row, bool bCover, Failure failure) {
  return WriteWithRepair({row}, bCover, failure);
}

int CFileModel::AddBatch(const std::vector<RowToWrite>& vecRows, Failure failure) {
  return vecRows.empty() ? kStatusOk : WriteWithRepair(vecRows, false, failure);
}

Codes CFileModel::Delete(unsigned long long u64DataId, Failure failure) {
  if (!Open(failure)) {
    return {kStatusNoConnection};
  }
  if (m_state == State::Damaged) {
    return {kStatusNoConnection, kStatusDeleteFailed};
  }
  if (failure == kDeletes || m_state == State::NoTable) {
    return {kStatusDeleteFailed};
  }
  m_mapRows.erase(u64DataId);
  return {kStatusOk};
}

bool CFileModel::Read(size_t uLimit, Failure failure, std::vector<RowToWrite>& vecRows) {
  if (!Open(failure) || failure == kSelects || m_state != State::Sound) {
    return false;
  }
  for (const auto& [u64DataId, row] : m_mapRows) {
    if (vecRows.size() == uLimit) {
      break;
    }
    vecRows.push_back({u64DataId, row});
    std::string& strData = vecRows.back().row.strData;
    strData.resize(strData.find('\0') == std::string::npos ? strData.size() : strData.find('\0'));
  }
  return true;
}

bool CFileModel::CanBeSpoilt(Spoiling spoiling) const {
  switch (spoiling) {
    case kGarbage:
    case kCutToNothing:
    case kRemove:
      return m_state != State::Missing;
    default:
      return m_state == State::Sound;
  }
}

void CFileModel::Spoil(Spoiling spoiling) {
  m_mapRows.clear();
  switch (spoiling) {
    case kCutToNothing:
      m_state = State::Empty;
      break;
    case kRemove:
      m_state = State::Missing;
      break;
    case kCutToByte:
      m_state = State::OneByte;
      break;
    case kDropTable:
      m_state = State::NoTable;
      break;
    default:
      m_state = State::Damaged;
  }
}
