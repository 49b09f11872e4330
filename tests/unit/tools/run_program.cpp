#include "tests/unit/tools/run_program.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <fstream>
#include <sstream>
#include <thread>

namespace {

constexpr std::chrono::seconds kHangGuard{120};

std::string Content(const std::string& strPath) {
  std::ostringstream content;
  content << std::ifstream(strPath).rdbuf();
  return content.str();
}

}  // namespace

CProgram::CProgram(const std::string& strDirectory, std::vector<std::string> vecArguments, int iInput)
    : m_strDirectory(strDirectory) {
  std::vector<char*> vecPointers;
  for (std::string& strArgument : vecArguments) {
    vecPointers.push_back(strArgument.data());
  }
  vecPointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, iInput, STDIN_FILENO);
  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC;
  posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, (strDirectory + "/stdout").c_str(), kFlags, 0600);
  posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, (strDirectory + "/stderr").c_str(), kFlags, 0600);
  EXPECT_EQ(::posix_spawn(&m_iProcess, vecPointers[0], &actions, nullptr, vecPointers.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
}

CProgram::~CProgram() {
  if (m_iProcess > 0) {
    ::kill(m_iProcess, SIGKILL);
    ::waitpid(m_iProcess, nullptr, 0);
  }
}

void CProgram::Signal(int iSignal) const {
  ::kill(m_iProcess, iSignal);
}

ProgramResult CProgram::Wait() {
  ProgramResult result;
  const auto end = std::chrono::steady_clock::now() + kHangGuard;
  int iStatus = 0;
  pid_t iEnded = 0;
  while (m_iProcess > 0 && (iEnded = ::waitpid(m_iProcess, &iStatus, WNOHANG)) == 0 &&
         std::chrono::steady_clock::now() < end) {
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  if (iEnded == m_iProcess) {
    m_iProcess = -1;
    result.iExitCode = WIFEXITED(iStatus) ? WEXITSTATUS(iStatus) : -1;
  }
  result.strOutput = Content(m_strDirectory + "/stdout");
  result.strErrors = Content(m_strDirectory + "/stderr");
  return result;
}
