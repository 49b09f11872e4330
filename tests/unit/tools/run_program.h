// Runs a program with files for its standard streams.
#ifndef QMLOGCACHE_TESTS_UNIT_TOOLS_RUN_PROGRAM_H_
#define QMLOGCACHE_TESTS_UNIT_TOOLS_RUN_PROGRAM_H_

#include <sys/types.h>

#include <string>
#include <vector>

struct ProgramResult {
  int iExitCode = -1;  // -1: it did not exit by itself
  std::string strOutput;
  std::string strErrors;
};

class CProgram {
 public:
  // iInput: its standard input; stays the caller's. The streams' files are made in strDirectory.
  CProgram(const std::string& strDirectory, std::vector<std::string> vecArguments, int iInput);
  ~CProgram();
  CProgram(const CProgram&) = delete;
  CProgram& operator=(const CProgram&) = delete;

  void Signal(int iSignal) const;
  // Killed when it does not end within a long time.
  ProgramResult Wait();

 private:
  const std::string m_strDirectory;
  pid_t m_iProcess = -1;
};

#endif  // QMLOGCACHE_TESTS_UNIT_TOOLS_RUN_PROGRAM_H_
