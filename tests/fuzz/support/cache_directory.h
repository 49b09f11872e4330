// A cache directory with one sender's file that the fuzzer wrote, another sender's sound one, and things outside that
// nobody may touch. In the process's installation (installation.h).
#ifndef QMLOGCACHE_TESTS_FUZZ_SUPPORT_CACHE_DIRECTORY_H_
#define QMLOGCACHE_TESTS_FUZZ_SUPPORT_CACHE_DIRECTORY_H_

#include <map>
#include <string>

#include "platform/cpstring.h"
#include "tests/fuzz/support/database_recipe.h"

class CCacheDirectory {
 public:
  static constexpr char kSender[] = "sender";
  static constexpr char kOther[] = "other";
  static constexpr char kOtherData[] = "other's data";  // of the other sender's only record, data id 1

  struct Planted {
    const char* pszSide;  // the name's end of the side file
    bool bBackupIsLink;   // the newer backup's name is taken by a link to a file outside
    bool bStrayEntries;   // a directory and a link to a file outside lie there under cache files' names
  };

  CCacheDirectory();

  // Everything anew.
  void Fill(const DatabaseBytes& bytes, const Planted& planted);
  // Ends the program when something but cache files, their side files and backups is there, or when anything outside
  // has changed.
  void Check() const;
  // The sender's file was backed up and made anew since it was filled.
  static bool WasReplaced();

  // With a trailing slash, as the component has it.
  static CPString Path();
  static std::string SenderFile();
  static std::string Scratch();  // for copies

 private:
  static std::map<std::string, std::string> Outside();

  std::map<std::string, std::string> m_mapOutside;  // contents by path
  Planted m_planted{};
};

#endif  // QMLOGCACHE_TESTS_FUZZ_SUPPORT_CACHE_DIRECTORY_H_
