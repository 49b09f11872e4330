#include "platform/json_parse.h"

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

namespace qmtools {
inline namespace v1 {

namespace {

constexpr size_t kMaxDepth = 512;

// Looked at before parsing: parsing itself needs no stack, but writing a node out again does. Up to the first byte that
// the parser refuses, this counts what the parser would.
bool IsNestedTooDeep(std::string_view svText) {
  size_t uDepth = 0;
  bool bInString = false;
  for (size_t uAt = 0; uAt < svText.size(); ++uAt) {
    const char cByte = svText[uAt];
    if (bInString) {
      if (cByte == '\\') {
        ++uAt;
      } else if (cByte == '"') {
        bInString = false;
      }
    } else if (cByte == '"') {
      bInString = true;
    } else if (cByte == '[' || cByte == '{') {
      if (++uDepth > kMaxDepth) {
        return true;
      }
    } else if ((cByte == ']' || cByte == '}') && uDepth > 0) {
      --uDepth;
    }
  }
  return false;
}

const nlohmann::json* JsonOf(const CPJsonParse::Node* pNode) {
  return reinterpret_cast<const nlohmann::json*>(pNode);
}

}  // namespace

struct __attribute__((visibility("hidden"))) CPJsonParse::Impl {
  nlohmann::json root = nlohmann::json::value_t::discarded;
};

CPJsonParse::CPJsonParse() : m_pImpl(std::make_unique<Impl>()) {}
CPJsonParse::~CPJsonParse() = default;

bool CPJsonParse::LoadBuffer(const CPString& strText) {
  std::string_view svText = strText.View();
  // Senders count a C string's end in now and then. Zeros elsewhere are no JSON, and the parser would take the first
  // one for the end of the text.
  while (!svText.empty() && svText.back() == '\0') {
    svText.remove_suffix(1);
  }
  m_pImpl->root = nlohmann::json::value_t::discarded;
  if (svText.find('\0') != std::string_view::npos || IsNestedTooDeep(svText)) {
    return false;
  }
  try {
    m_pImpl->root = nlohmann::json::parse(svText, nullptr, /*allow_exceptions=*/false);
    return !m_pImpl->root.is_discarded();
  } catch (...) {
    return false;
  }
}

const CPJsonParse::Node* CPJsonParse::GetNode(const Node* pParent, const char* pszKey) const {
  const nlohmann::json& parent = pParent == nullptr ? m_pImpl->root : *JsonOf(pParent);
  if (pszKey == nullptr || !parent.is_object()) {
    return nullptr;
  }
  const auto itMember = parent.find(pszKey);
  return itMember == parent.end() ? nullptr : reinterpret_cast<const Node*>(&*itMember);
}

CPString CPJsonParse::GetValue(const Node* pNode) const {
  if (pNode == nullptr) {
    return {};
  }
  const nlohmann::json& node = *JsonOf(pNode);
  if (const auto* pText = node.get_ptr<const std::string*>(); pText != nullptr) {
    return CPString(std::string_view(*pText));
  }
  return CPString(std::string_view(node.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)));
}

}  // namespace v1
}  // namespace qmtools
