// Text of an integer, kept on the stack: no memory, no locale, and a fraction of printf's time.
#ifndef QMLOGCACHE_PLATFORM_NUMBER_TEXT_H_
#define QMLOGCACHE_PLATFORM_NUMBER_TEXT_H_

#include <array>
#include <charconv>
#include <cstddef>
#include <string_view>

class CNumberText {
 public:
  template <typename T>
  explicit CNumberText(T number, int iBase = 10) {
    m_uLength = static_cast<size_t>(
        std::to_chars(m_szText.data(), m_szText.data() + m_szText.size(), number, iBase).ptr - m_szText.data());
  }
  // Valid as long as the object.
  std::string_view View() const { return {m_szText.data(), m_uLength}; }

 private:
  std::array<char, 24> m_szText{};
  size_t m_uLength = 0;
};

#endif  // QMLOGCACHE_PLATFORM_NUMBER_TEXT_H_
