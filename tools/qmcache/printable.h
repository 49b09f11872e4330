// Text from files and records, made fit for a terminal.
#ifndef QMLOGCACHE_TOOLS_QMCACHE_PRINTABLE_H_
#define QMLOGCACHE_TOOLS_QMCACHE_PRINTABLE_H_

#include <cstddef>
#include <string>
#include <string_view>

// The text as one line that no terminal acts upon: control characters, bytes that are not UTF-8 and marks that change
// the direction of text are written as \n, \t, \xhh; a backslash as two.
[[nodiscard]] std::string Printable(std::string_view svText);

// Length of the mark at the front of svText, which begins with a whole character; 0 when there is none. Marks by which a
// text can make itself look like another one: U+061C, U+200B-U+200F, U+2028-U+202E, U+2066-U+2069, U+FEFF.
[[nodiscard]] size_t DirectionMarkLength(std::string_view svText);

#endif  // QMLOGCACHE_TOOLS_QMCACHE_PRINTABLE_H_
