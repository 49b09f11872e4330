#include "platform/cpstring.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>
#include <stdexcept>

inline namespace qmplatform_v1 {

CPString::Rep* CPString::NewRep(size_t uLength) {
  constexpr size_t kMaxLength = std::numeric_limits<uint32_t>::max() - sizeof(Rep) - 1;
  if (uLength > kMaxLength) {
    throw std::length_error("CPString");
  }
  void* pMemory = std::malloc(sizeof(Rep) + uLength + 1);
  if (pMemory == nullptr) {
    throw std::bad_alloc();
  }
  Rep* pRep = new (pMemory) Rep{{1}, static_cast<uint32_t>(uLength)};
  pRep->Bytes()[uLength] = '\0';
  return pRep;
}

CPString::CPString(std::string_view svText) {
  if (!svText.empty()) {
    m_pRep = NewRep(svText.size());
    std::memcpy(m_pRep->Bytes(), svText.data(), svText.size());
  }
}

CPString CPString::Allocate(size_t uLength, char** ppBytes) {
  CPString strResult;
  *ppBytes = nullptr;
  if (uLength != 0) {
    strResult.m_pRep = NewRep(uLength);
    *ppBytes = strResult.m_pRep->Bytes();
  }
  return strResult;
}

void CPString::Release() noexcept {
  if (m_pRep == nullptr) {
    return;
  }
  // The acquire half makes every other owner's reads happen before the bytes go.
  if (m_pRep->dwRefs.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    m_pRep->~Rep();
    std::free(m_pRep);
  }
  m_pRep = nullptr;
}

void CPString::Format(const char* pszFormat, ...) {
  va_list args;
  va_start(args, pszFormat);
  va_list argsAgain;
  va_copy(argsAgain, args);
  const int iLength = std::vsnprintf(nullptr, 0, pszFormat, args);
  va_end(args);
  if (iLength < 0) {
    va_end(argsAgain);
    throw std::length_error("CPString::Format");
  }
  CPString strResult;
  if (iLength > 0) {
    try {
      strResult.m_pRep = NewRep(static_cast<size_t>(iLength));
    } catch (...) {
      va_end(argsAgain);
      throw;
    }
    std::vsnprintf(strResult.m_pRep->Bytes(), static_cast<size_t>(iLength) + 1, pszFormat, argsAgain);
  }
  va_end(argsAgain);
  *this = std::move(strResult);
}

CPString CPString::Left(size_t uCount) const {
  return uCount >= GetLength() ? *this : CPString(View().substr(0, uCount));
}

CPString CPString::Right(size_t uCount) const {
  return uCount >= GetLength() ? *this : CPString(View().substr(GetLength() - uCount));
}

size_t CPString::Replace(std::string_view svFrom, std::string_view svTo) {
  if (svFrom.empty()) {
    return 0;
  }
  const std::string_view svText = View();
  size_t uCount = 0;
  for (size_t uAt = svText.find(svFrom); uAt != std::string_view::npos;
       uAt = svText.find(svFrom, uAt + svFrom.size())) {
    ++uCount;
  }
  if (uCount == 0) {
    return 0;
  }
  if (svTo.size() > std::numeric_limits<uint32_t>::max()) {
    throw std::length_error("CPString::Replace");  // the product below could wrap
  }
  char* pOut = nullptr;
  CPString strResult = Allocate(svText.size() - uCount * svFrom.size() + uCount * svTo.size(), &pOut);
  size_t uFrom = 0;
  const auto append = [&pOut](std::string_view svPiece) {
    if (!svPiece.empty() && pOut != nullptr) {
      std::memcpy(pOut, svPiece.data(), svPiece.size());
      pOut += svPiece.size();
    }
  };
  for (size_t uAt = svText.find(svFrom); uAt != std::string_view::npos; uAt = svText.find(svFrom, uFrom)) {
    append(svText.substr(uFrom, uAt - uFrom));
    append(svTo);
    uFrom = uAt + svFrom.size();
  }
  append(svText.substr(uFrom));
  *this = std::move(strResult);
  return uCount;
}

}  // namespace qmplatform_v1
