// What keeps a log line one line: bytes that could end it, hide it or move the cursor are written as text.
//
// Written as \n, \r, \t, \\ or, byte by byte, \xhh (lower case): the control characters 00-1f and 7f, the backslash,
// U+0080-U+009F, U+2028, U+2029 and every byte that is not part of well-formed UTF-8. Everything else stays as it is,
// so different texts always give different lines and UnescapeLogText gives the text back.
#ifndef QMLOGCACHE_PLATFORM_LOG_ESCAPE_H_
#define QMLOGCACHE_PLATFORM_LOG_ESCAPE_H_

#include <string>
#include <string_view>

// Appends the escaped text. Throws std::bad_alloc.
void AppendEscapedLogText(std::string_view svText, std::string* pstrLine);

// Puts the original text into *pstrText. False, and *pstrText is empty, when svLine holds a backslash that begins none
// of the sequences above. Throws std::bad_alloc.
[[nodiscard]] bool UnescapeLogText(std::string_view svLine, std::string* pstrText);

#endif  // QMLOGCACHE_PLATFORM_LOG_ESCAPE_H_
