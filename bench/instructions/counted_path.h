// Which instructions are counted: those of the calling thread while a section lives, under callgrind.
#ifndef QMLOGCACHE_BENCH_INSTRUCTIONS_COUNTED_PATH_H_
#define QMLOGCACHE_BENCH_INSTRUCTIONS_COUNTED_PATH_H_

#include <string>
#include <utility>

// One road of a record through the program.
class CCountedPath {
 public:
  explicit CCountedPath(std::string strName) : m_strName(std::move(strName)) {}

  // Only this path is counted from now on. A profile needs it: of what comes after a first report callgrind knows the
  // sum alone.
  static void CountOnly(const std::string& strName);

  class CSection {
   public:
    explicit CSection(const CCountedPath& path);
    ~CSection();
    CSection(const CSection&) = delete;
    CSection& operator=(const CSection&) = delete;

   private:
    const bool m_bCounted;
  };

  // Writes what was counted since the last report as the cost of uRecords records, and begins anew: a dump whose
  // trigger is "NAME RECORDS".
  void Report(unsigned int uRecords) const;

 private:
  bool IsCounted() const;

  const std::string m_strName;
};

#endif  // QMLOGCACHE_BENCH_INSTRUCTIONS_COUNTED_PATH_H_
