#include "platform/log.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <printf.h>
#include <pthread.h>
#include <regex.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <condition_variable>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "temporary_directory.h"

namespace {

constexpr unsigned kDefaultLevels = 1U << 3 | 1U << 4 | 1U << 6;
constexpr unsigned long long kNoRotation = 1ULL << 30;

// A disk that takes its time: while closed, a flush of a log file waits.
class CSlowDisk {
 public:
  void Close() {
    const std::lock_guard lock(m_mutex);
    m_bClosed = true;
    m_uWaiting = 0;
  }
  void Open() {
    const std::lock_guard lock(m_mutex);
    m_bClosed = false;
    m_condition.notify_all();
  }
  void Pass() {
    std::unique_lock lock(m_mutex);
    if (m_bClosed) {
      ++m_uWaiting;
      m_condition.notify_all();
      m_condition.wait(lock, [this] { return !m_bClosed; });
    }
  }
  void AwaitFlush() {
    std::unique_lock lock(m_mutex);
    m_condition.wait(lock, [this] { return m_uWaiting != 0; });
  }

 private:
  std::mutex m_mutex;
  std::condition_variable m_condition;
  bool m_bClosed = false;
  size_t m_uWaiting = 0;
};

CSlowDisk g_slowDisk;

}  // namespace

extern "C" __attribute__((visibility("default"))) int fflush(FILE* pFile) {
  static auto* const pfnReal = reinterpret_cast<int (*)(FILE*)>(dlsym(RTLD_NEXT, "fflush"));
  if (pFile != nullptr && pFile != stdout && pFile != stderr) {
    g_slowDisk.Pass();
  }
  return pfnReal(pFile);
}

namespace {

std::string ReadAll(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

mode_t ModeOf(const std::string& strPath) {
  struct stat info {};
  EXPECT_EQ(stat(strPath.c_str(), &info), 0) << strPath;
  return info.st_mode & ALLPERMS;
}

// Time, process and thread.
#define LINE_BEGIN "[0-9]{4}-[0-9]{2}-[0-9]{2}T[0-9]{2}:[0-9]{2}:[0-9]{2}[.][0-9]{6}Z [0-9]+ [0-9]+ "

// How many bytes at the front of the text match the extended regular expression.
size_t MatchLength(const std::string& strText, const char* pszPattern) {
  regex_t pattern;
  if (regcomp(&pattern, pszPattern, REG_EXTENDED) != 0) {
    ADD_FAILURE() << pszPattern;
    return 0;
  }
  regmatch_t match{};
  const bool bMatches = regexec(&pattern, strText.c_str(), 1, &match, 0) == 0 && match.rm_so == 0;
  regfree(&pattern);
  return bMatches ? static_cast<size_t>(match.rm_eo) : 0;
}

class LogTest : public testing::Test {
 protected:
  void SetUp() override { Configure(kDefaultLevels, kNoRotation, 5); }
  void TearDown() override {
    for (; !m_vecHandles.empty(); m_vecHandles.pop_back()) {
      LogUninit(m_vecHandles.back());
    }
  }

  void Configure(unsigned dwLevels, unsigned long long u64MaxFileSize, unsigned dwMaxFiles) const {
    ASSERT_EQ(QmLogConfigure(m_directory.Path().c_str(), dwLevels, u64MaxFileSize, dwMaxFiles), 0);
  }
  void* Open(const char* pszChannel) {
    void* hLog = LogInit(pszChannel);
    EXPECT_NE(hLog, nullptr);
    m_vecHandles.push_back(hLog);
    return hLog;
  }
  void CloseLast() {
    LogUninit(m_vecHandles.back());
    m_vecHandles.pop_back();
  }

  std::string FileOf(const std::string& strName) const { return m_directory.Path(strName + ".log"); }
  // The lines of a file from their level on; every one must begin as a line should.
  std::vector<std::string> Lines(const std::string& strName) const {
    std::vector<std::string> vecLines;
    std::ifstream file(FileOf(strName), std::ios::binary);
    for (std::string strLine; std::getline(file, strLine);) {
      const size_t uBegin = MatchLength(strLine, "^" LINE_BEGIN);
      EXPECT_GT(uBegin, 0u) << strLine;
      vecLines.push_back(strLine.substr(uBegin));
    }
    return vecLines;
  }

  CTemporaryDirectory m_directory;
  std::vector<void*> m_vecHandles;
};

using Texts = std::vector<std::string>;

TEST_F(LogTest, ALineTellsTimeProcessThreadAndLevel) {
  void* hLog = Open("channel");
  pid_t iThread = 0;
  std::thread([&] {
    iThread = gettid();
    LogPrint(hLog, 3, "*qmlogcache %s iRet[%x]", "Start", 0xA0010002U);
  }).join();
  CloseLast();
  const std::string strExpected =
      "Z " + std::to_string(getpid()) + " " + std::to_string(iThread) + " L3 *qmlogcache Start iRet[a0010002]\n";
  const std::string strFile = ReadAll(FileOf("channel"));
  ASSERT_GT(strFile.size(), strExpected.size());
  EXPECT_EQ(strFile.substr(strFile.size() - strExpected.size()), strExpected);

  std::tm broken{};
  ASSERT_NE(strptime(strFile.c_str(), "%Y-%m-%dT%H:%M:%S", &broken), nullptr);
  EXPECT_NEAR(static_cast<double>(timegm(&broken)), static_cast<double>(time(nullptr)), 600.0);
}

TEST_F(LogTest, ATextCannotForgeALine) {
  void* hLog = Open("channel");
  LogPrint(hLog, 3, "%s", "a\n2026-11-21T08:40:00.000000Z 1 1 L3 fake");
  LogPrintStr(hLog, 3, "b\r\nc\\n\x1B[0m\xC2\x85\xFF");
  CloseLast();
  EXPECT_EQ(Lines("channel"),
            (Texts{"L3 a\\n2026-11-21T08:40:00.000000Z 1 1 L3 fake", "L3 b\\r\\nc\\\\n\\x1b[0m\\xc2\\x85\\xff"}));
}

TEST_F(LogTest, OneLineBreakAtTheEndIsTheLinesOwn) {
  void* hLog = Open("channel");
  LogPrint(hLog, 3, "a\n");
  LogPrint(hLog, 3, "b\n\n");
  LogPrintStr(hLog, 3, "\n");
  LogPrintStr(hLog, 3, "");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 a", "L3 b\\n", "L3 ", "L3 "}));
}

TEST_F(LogTest, FixedTextIsNoFormat) {
  LogPrintStr(Open("channel"), 6, "100%s %n %");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L6 100%s %n %"}));
}

TEST_F(LogTest, LongTextsAreWhole) {
  void* hLog = Open("channel");
  Texts vecExpected;
  for (const size_t uLength : {1022u, 1023u, 1024u, 1025u, 300000u}) {
    const std::string strText(uLength, 'x');
    LogPrint(hLog, 3, "%s", strText.c_str());
    vecExpected.push_back("L3 " + strText);
  }
  CloseLast();
  EXPECT_EQ(Lines("channel"), vecExpected);
}

TEST_F(LogTest, OnlyLevelsThatAreOnAreWritten) {
  void* hLog = Open("channel");
  const int levels[] = {1, 2, 3, 4, 5, 6, 7, 31, 0, 32, 33, 35, 38, -1, -29, 1 << 30};
  for (const int iLevel : levels) {
    LogPrint(hLog, iLevel, "first");
  }
  Configure(1U << 1 | 1U << 31 | 1U, kNoRotation, 5);
  for (const int iLevel : levels) {
    LogPrintStr(hLog, iLevel, "second");
  }
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 first", "L4 first", "L6 first", "L1 second", "L31 second"}));
}

int g_iFormatted = 0;

TEST_F(LogTest, ALineThatIsOffIsNotFormatted) {
  // A conversion of our own tells how often the text was formatted.
  g_iFormatted = 0;
  ASSERT_EQ(register_printf_specifier(
                'W',
                [](FILE* pFile, const printf_info*, const void* const*) {
                  ++g_iFormatted;
                  return fprintf(pFile, "counted");
                },
                [](const printf_info*, size_t, int*, int*) { return 0; }),
            0);
  std::string strFormat = "text %W";  // not a literal: the compiler does not know the conversion
  void* hLog = Open("channel");
  LogPrint(hLog, 2, strFormat.c_str(), 0);
  LogPrint(hLog, 0, strFormat.c_str(), 0);
  LogPrint(hLog, 99, strFormat.c_str(), 0);
  LogPrint(nullptr, 3, strFormat.c_str(), 0);
  CloseLast();
  LogPrint(hLog, 3, strFormat.c_str(), 0);
  EXPECT_EQ(g_iFormatted, 0);

  LogPrint(Open("channel"), 3, strFormat.c_str(), 0);
  CloseLast();
  EXPECT_EQ(g_iFormatted, 1);
  EXPECT_EQ(Lines("channel"), (Texts{"L3 text counted"}));
}

TEST_F(LogTest, TheFormatSeesErrnoAndTheCallKeepsIt) {
  void* hLog = Open("channel");
  errno = ENOENT;
  const std::string strFormat = "%m";  // not a literal: the conversion is none of ISO C++
  LogPrint(hLog, 3, strFormat.c_str(), 0);
  EXPECT_EQ(errno, ENOENT);
  errno = ENOSPC;
  LogPrintStr(hLog, 3, "x");
  EXPECT_EQ(errno, ENOSPC);
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 No such file or directory", "L3 x"}));
}

TEST_F(LogTest, NullsDoNothing) {
  EXPECT_EQ(LogInit(nullptr), nullptr);
  LogPrintStr(nullptr, 3, "x");
  LogUninit(nullptr);
  void* hLog = Open("channel");
  LogPrintStr(hLog, 3, nullptr);
  const char* pszFormat = nullptr;
  LogPrint(hLog, 3, pszFormat, 0);
  CloseLast();
  EXPECT_EQ(Lines("channel"), Texts{});
}

TEST_F(LogTest, NamesThatAreNoFileNamesAreRefused) {
  for (const std::string& strName :
       {std::string(), std::string(".."), std::string("../x"), std::string("a/b"), std::string("a.b"),
        std::string("a b"), std::string("\xC3\xA9"), std::string("a\n"), std::string(65, 'a')}) {
    EXPECT_EQ(LogInit(strName.c_str()), nullptr) << strName;
  }
  EXPECT_TRUE(std::filesystem::is_empty(m_directory.Path()));
  Open("Az09-_");
  EXPECT_TRUE(std::filesystem::exists(FileOf("Az09-_")));
}

TEST_F(LogTest, AClosedHandleDoesNothingAndComesBackWithTheNextOpening) {
  void* hLog = Open("channel");
  LogPrintStr(hLog, 3, "one");
  CloseLast();
  LogPrintStr(hLog, 3, "lost");
  LogPrint(hLog, 3, "%s", "lost");
  LogUninit(hLog);
  EXPECT_EQ(Lines("channel"), (Texts{"L3 one"}));
  EXPECT_EQ(Open("channel"), hLog);
  LogPrintStr(hLog, 3, "two");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 one", "L3 two"}));
}

TEST_F(LogTest, AChannelOpenedTwiceStaysOpenUntilBothAreClosed) {
  void* hLog = Open("channel");
  EXPECT_EQ(Open("channel"), hLog);
  EXPECT_NE(Open("other"), hLog);
  CloseLast();
  CloseLast();
  LogPrintStr(hLog, 3, "still open");
  CloseLast();
  LogPrintStr(hLog, 3, "closed");
  EXPECT_EQ(Lines("channel"), (Texts{"L3 still open"}));
}

TEST_F(LogTest, AQuietChannelsLinesAreInTheFileWithoutClosing) {
  void* hLog = Open("channel");
  LogPrintStr(hLog, 3, "visible");
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
  while (ReadAll(FileOf("channel")).empty() && std::chrono::steady_clock::now() < deadline) {
    std::this_thread::yield();
  }
  EXPECT_EQ(Lines("channel"), (Texts{"L3 visible"}));
}

TEST_F(LogTest, AThreadsLinesKeepTheirOrder) {
  void* hLog = Open("channel");
  Texts vecExpected;
  for (int iLine = 0; iLine < 5000; ++iLine) {  // fewer than the writer's bound
    LogPrint(hLog, 3, "line %d", iLine);
    vecExpected.push_back("L3 line " + std::to_string(iLine));
  }
  CloseLast();
  EXPECT_EQ(Lines("channel"), vecExpected);
}

TEST_F(LogTest, LinesBeyondTheBoundAreDroppedAndCounted) {
  void* hLog = Open("channel");
  g_slowDisk.Close();
  LogPrintStr(hLog, 3, "first");
  g_slowDisk.AwaitFlush();
  // The writer stands still inside the first line's flush: that line counts as pending, 8191 more find room.
  for (int iLine = 1; iLine < 9000; ++iLine) {
    LogPrint(hLog, 3, "line %d", iLine);
  }
  g_slowDisk.Open();
  CloseLast();
  const Texts vecLines = Lines("channel");
  ASSERT_EQ(vecLines.size(), 8193u);
  EXPECT_EQ(vecLines[8191], "L3 line 8191");
  EXPECT_EQ(vecLines[8192], "L3 qmlog dropped[808] lines");
}

TEST_F(LogTest, DroppedLinesAreReportedWhereTheyAreMissing) {
  void* hLog = Open("channel");
  g_slowDisk.Close();
  LogPrintStr(hLog, 3, "first");
  g_slowDisk.AwaitFlush();
  const std::string strHuge(3 * 1024 * 1024, 'x');
  LogPrintStr(hLog, 3, strHuge.c_str());
  LogPrintStr(hLog, 3, strHuge.c_str());
  LogPrintStr(hLog, 3, strHuge.c_str());  // beyond 8 MiB
  LogPrintStr(hLog, 3, strHuge.c_str());
  LogPrintStr(hLog, 3, "after");
  g_slowDisk.Open();
  CloseLast();
  EXPECT_EQ(Lines("channel"),
            (Texts{"L3 first", "L3 " + strHuge, "L3 " + strHuge, "L3 qmlog dropped[2] lines", "L3 after"}));
}

TEST_F(LogTest, ALineLargerThanTheBoundPassesAlone) {
  void* hLog = Open("channel");
  const std::string strHuge(9 * 1024 * 1024, 'x');
  LogPrintStr(hLog, 3, strHuge.c_str());
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 " + strHuge}));
}

TEST_F(LogTest, TheErrorChannelDropsNothingAndIsWrittenBeforeTheCallReturns) {
  void* hLog = Open("qmlogcacheerror");
  constexpr int kThreads = 4;
  constexpr int kEach = 5000;
  std::vector<std::thread> vecThreads;
  for (int iThread = 0; iThread < kThreads; ++iThread) {
    vecThreads.emplace_back([hLog, iThread] {
      for (int iLine = 0; iLine < kEach; ++iLine) {
        LogPrint(hLog, 3, "%d %d", iThread, iLine);
      }
    });
  }
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  // The channel is still open: nothing may depend on its closing.
  std::map<int, int> mapNext;
  const std::string strFile = ReadAll(FileOf("qmlogcacheerror"));
  std::string strTimeBefore;
  size_t uLines = 0;
  for (size_t uAt = 0; uAt < strFile.size(); ++uLines) {
    const size_t uEnd = strFile.find('\n', uAt);
    ASSERT_NE(uEnd, std::string::npos);
    const std::string strLine = strFile.substr(uAt, uEnd - uAt);
    int iThread = -1;
    int iLine = -1;
    ASSERT_EQ(sscanf(strLine.c_str(), "%*s %*d %*d L3 %d %d", &iThread, &iLine), 2) << strLine;
    ASSERT_EQ(iLine, mapNext[iThread]++);
    const std::string strTime = strLine.substr(0, strLine.find(' '));
    ASSERT_LE(strTimeBefore, strTime);
    strTimeBefore = strTime;
    uAt = uEnd + 1;
  }
  EXPECT_EQ(uLines, static_cast<size_t>(kThreads) * kEach);
}

TEST_F(LogTest, FilesAreTheOwnersAloneWhateverTheUmask) {
  const mode_t uBefore = umask(0);
  std::ofstream(FileOf("wide")) << "";
  ASSERT_EQ(chmod(FileOf("wide").c_str(), 0666), 0);
  Open("channel");
  Open("wide");
  umask(0777);
  Open("masked");
  umask(uBefore);
  EXPECT_EQ(ModeOf(FileOf("channel")), 0600u);
  EXPECT_EQ(ModeOf(FileOf("wide")), 0600u);
  EXPECT_EQ(ModeOf(FileOf("masked")), 0600u);
}

TEST_F(LogTest, OnlyARegularFileIsWritten) {
  m_directory.Write("target", "precious");
  ASSERT_EQ(symlink(m_directory.Path("target").c_str(), FileOf("link").c_str()), 0);
  ASSERT_EQ(symlink(m_directory.Path("nowhere").c_str(), FileOf("dangling").c_str()), 0);
  ASSERT_EQ(mkfifo(FileOf("fifo").c_str(), 0600), 0);
  ASSERT_EQ(mkdir(FileOf("directory").c_str(), 0700), 0);
  for (const char* pszName : {"link", "dangling", "fifo", "directory"}) {
    EXPECT_EQ(LogInit(pszName), nullptr) << pszName;
  }
  EXPECT_EQ(ReadAll(m_directory.Path("target")), "precious");
  EXPECT_FALSE(std::filesystem::exists(m_directory.Path("nowhere")));
}

TEST_F(LogTest, OnlyTheDirectorysLastLevelIsMade) {
  const std::string strOne = m_directory.Path("one");
  const std::string strTwo = m_directory.Path("missing/two");
  ASSERT_EQ(QmLogConfigure(strTwo.c_str(), kDefaultLevels, kNoRotation, 5), 0);
  EXPECT_EQ(LogInit("channel"), nullptr);
  EXPECT_FALSE(std::filesystem::exists(m_directory.Path("missing")));

  const mode_t uBefore = umask(0);
  ASSERT_EQ(QmLogConfigure(strOne.c_str(), kDefaultLevels, kNoRotation, 5), 0);
  Open("channel");
  umask(uBefore);
  EXPECT_EQ(ModeOf(strOne), 0750u);
  EXPECT_TRUE(std::filesystem::exists(strOne + "/channel.log"));
}

TEST_F(LogTest, RotatesBySizeAndKeepsSoManyFiles) {
  Configure(kDefaultLevels, 1000, 3);
  void* hLog = Open("channel");
  for (int iLine = 0; iLine < 100; ++iLine) {
    LogPrint(hLog, 3, "line %d", iLine);
  }
  CloseLast();
  size_t uFiles = 0;
  for (const auto& entry : std::filesystem::directory_iterator(m_directory.Path())) {
    ++uFiles;
    EXPECT_LE(entry.file_size(), 1000u);
    EXPECT_EQ(ModeOf(entry.path().string()), 0600u);
  }
  EXPECT_EQ(uFiles, 3u);
  Texts vecLines;
  for (const char* pszName : {"channel.2", "channel.1", "channel"}) {
    const Texts vecFile = Lines(pszName);
    vecLines.insert(vecLines.end(), vecFile.begin(), vecFile.end());
  }
  ASSERT_FALSE(vecLines.empty());
  for (size_t uLine = 0; uLine < vecLines.size(); ++uLine) {
    EXPECT_EQ(vecLines[uLine], "L3 line " + std::to_string(100 - vecLines.size() + uLine));
  }
}

TEST_F(LogTest, OneFileIsEmptiedWhenItIsFull) {
  Configure(kDefaultLevels, 1000, 1);
  void* hLog = Open("qmlogcacheerror");
  for (int iLine = 0; iLine < 100; ++iLine) {
    LogPrint(hLog, 3, "line %d", iLine);
  }
  CloseLast();
  EXPECT_LE(std::filesystem::file_size(FileOf("qmlogcacheerror")), 1000u);
  EXPECT_EQ(Lines("qmlogcacheerror").back(), "L3 line 99");
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(m_directory.Path()), {}), 1);
}

TEST_F(LogTest, TheErrorChannelKeepsItsLinesWhenItCannotBeRotated) {
  Configure(kDefaultLevels, 1000, 2);
  ASSERT_TRUE(std::filesystem::create_directories(FileOf("qmlogcacheerror.1") + "/occupied"));
  void* hLog = Open("qmlogcacheerror");
  Texts vecExpected;
  for (int iLine = 0; iLine < 60; ++iLine) {
    LogPrint(hLog, 3, "line %d", iLine);
    vecExpected.push_back("L3 line " + std::to_string(iLine));
  }
  CloseLast();
  EXPECT_EQ(Lines("qmlogcacheerror"), vecExpected);
}

TEST_F(LogTest, HalfALineLeftBehindDoesNotSwallowTheNext) {
  std::ofstream(FileOf("channel")) << "2026-11-21T08:40:00.000000Z 1 1 L3 half";
  LogPrintStr(Open("channel"), 3, "whole");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 half", "L3 whole"}));
}

// Lets files grow to a size only, as a full disk would, for its own lifetime.
class CFullDisk {
 public:
  explicit CFullDisk(rlim_t uSize) : m_pfnBefore(signal(SIGXFSZ, SIG_IGN)) {
    EXPECT_EQ(getrlimit(RLIMIT_FSIZE, &m_before), 0);
    const rlimit limit{uSize, m_before.rlim_max};
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &limit), 0);
  }
  ~CFullDisk() {
    EXPECT_EQ(setrlimit(RLIMIT_FSIZE, &m_before), 0);
    signal(SIGXFSZ, m_pfnBefore);
  }
  CFullDisk(const CFullDisk&) = delete;
  CFullDisk& operator=(const CFullDisk&) = delete;

 private:
  rlimit m_before{};
  sighandler_t m_pfnBefore;
};

// What goes to standard error; through a pipe, as the full disk below would refuse a file.
class CCapturedStderr {
 public:
  CCapturedStderr() : m_iBefore(dup(STDERR_FILENO)) {
    EXPECT_EQ(pipe2(m_ends, O_CLOEXEC | O_NONBLOCK), 0);
    EXPECT_GE(dup2(m_ends[1], STDERR_FILENO), 0);
  }
  ~CCapturedStderr() {
    EXPECT_GE(dup2(m_iBefore, STDERR_FILENO), 0);
    for (const int iFd : {m_iBefore, m_ends[0], m_ends[1]}) {
      close(iFd);
    }
  }
  CCapturedStderr(const CCapturedStderr&) = delete;
  CCapturedStderr& operator=(const CCapturedStderr&) = delete;

  std::string Take() const {
    char szText[4096];
    const ssize_t iLength = read(m_ends[0], szText, sizeof szText);
    return iLength > 0 ? std::string(szText, static_cast<size_t>(iLength)) : std::string();
  }

 private:
  const int m_iBefore;
  int m_ends[2] = {-1, -1};
};

TEST_F(LogTest, AFullDiskLosesLinesWithACountAndNothingElse) {
  void* hLog = Open("qmlogcacheerror");
  LogPrintStr(hLog, 3, "before");
  CCapturedStderr captured;
  {
    const CFullDisk fullDisk(std::filesystem::file_size(FileOf("qmlogcacheerror")) + 10);
    LogPrintStr(hLog, 3, "lost one");
    LogPrintStr(hLog, 3, "lost two");
  }
  const std::string strTold = captured.Take();
  EXPECT_NE(strTold.find("qmlogcacheerror.log"), std::string::npos);
  EXPECT_EQ(strTold.find('\n'), strTold.size() - 1) << "told once: " << strTold;
  LogPrintStr(hLog, 3, "after");
  CloseLast();

  // What the disk took of the lost lines stands on lines of its own.
  const std::string strFile = ReadAll(FileOf("qmlogcacheerror"));
  const char* pszExpected =
      "^" LINE_BEGIN "L3 before\n[^L]*" LINE_BEGIN "L3 qmlog lost\\[2\\] lines\n" LINE_BEGIN "L3 after\n$";
  EXPECT_GT(MatchLength(strFile, pszExpected), 0u) << strFile;
}

TEST_F(LogTest, AFullDiskDoesNotStopTheWriter) {
  void* hLog = Open("channel");
  CCapturedStderr captured;
  {
    const CFullDisk fullDisk(0);
    LogPrintStr(hLog, 3, "lost");
    CloseLast();
  }
  EXPECT_NE(captured.Take().find("channel.log"), std::string::npos);
  LogPrintStr(Open("channel"), 3, "after");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 after"}));
}

TEST_F(LogTest, ADirectoryThatWentAwayIsMadeAgain) {
  ASSERT_EQ(QmLogConfigure(m_directory.Path("log").c_str(), kDefaultLevels, 200, 3), 0);
  void* hLog = Open("qmlogcacheerror");
  LogPrintStr(hLog, 3, "gone");
  std::filesystem::remove_all(m_directory.Path("log"));
  for (int iLine = 0; iLine < 10; ++iLine) {
    LogPrint(hLog, 3, "line %d", iLine);
  }
  CloseLast();
  EXPECT_EQ(Lines("log/qmlogcacheerror").back(), "L3 line 9");
}

TEST_F(LogTest, ConfigureRefusesNonsenseAndChangesNothing) {
  EXPECT_NE(QmLogConfigure(nullptr, 0, 1000, 1), 0);
  EXPECT_NE(QmLogConfigure("", 0, 1000, 1), 0);
  EXPECT_NE(QmLogConfigure("/nonexistent", 0, 0, 1), 0);
  EXPECT_NE(QmLogConfigure("/nonexistent", 0, 1000, 0), 0);
  LogPrintStr(Open("channel"), 3, "as before");
  CloseLast();
  EXPECT_EQ(Lines("channel"), (Texts{"L3 as before"}));
}

TEST_F(LogTest, ConfigureIsForChannelsOpenedLater) {
  const CTemporaryDirectory other;
  void* hEarlier = Open("earlier");
  ASSERT_EQ(QmLogConfigure(other.Path().c_str(), kDefaultLevels, kNoRotation, 5), 0);
  LogPrintStr(hEarlier, 3, "x");
  Open("later");
  EXPECT_TRUE(std::filesystem::exists(other.Path("later.log")));
  CloseLast();
  CloseLast();
  EXPECT_EQ(Lines("earlier"), (Texts{"L3 x"}));
}

TEST_F(LogTest, TheWritersThreadLeavesSignalsToTheHost) {
  LogPrintStr(Open("channel"), 3, "the writer runs");
  CloseLast();
  int iWriters = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    if (ReadAll(entry.path().string() + "/comm") != "qmlog\n") {
      continue;
    }
    ++iWriters;
    const std::string strStatus = ReadAll(entry.path().string() + "/status");
    const size_t uAt = strStatus.find("SigBlk:");
    ASSERT_NE(uAt, std::string::npos);
    const uint64_t u64Blocked = std::stoull(strStatus.substr(uAt + 7), nullptr, 16);
    for (const int iSignal : {SIGHUP, SIGINT, SIGTERM, SIGUSR1, SIGUSR2, SIGCHLD, SIGPIPE, SIGALRM, SIGRTMIN}) {
      EXPECT_NE(u64Blocked & (1ULL << (iSignal - 1)), 0u) << iSignal;
    }
  }
  EXPECT_EQ(iWriters, 1);
  sigset_t setOwn;
  ASSERT_EQ(pthread_sigmask(SIG_SETMASK, nullptr, &setOwn), 0);
  EXPECT_EQ(sigismember(&setOwn, SIGTERM), 0);
}

TEST_F(LogTest, ACancelledThreadLeavesTheChannelsUsable) {
  void* handles[] = {Open("channel"), Open("qmlogcacheerror")};
  for (int iRound = 0; iRound < 20; ++iRound) {
    void* hLog = handles[iRound % 2];
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void* pHandle) -> void* {
                    for (;;) {
                      LogPrint(pHandle, 3, "round and round %d", 1);
                      pthread_testcancel();
                    }
                  },
                  hLog),
              0);
    std::this_thread::sleep_for(std::chrono::microseconds(iRound * 50));  // the moment differs from round to round
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* pResult = nullptr;
    ASSERT_EQ(pthread_join(thread, &pResult), 0);
    EXPECT_EQ(pResult, PTHREAD_CANCELED);
    LogPrint(hLog, 3, "after %d", iRound);
  }
  CloseLast();
  CloseLast();
  EXPECT_EQ(Lines("qmlogcacheerror").back(), "L3 after 19");
}

TEST_F(LogTest, LinesMayMeetOpeningAndClosing) {
  std::atomic<bool> bStop{false};
  void* handles[] = {Open("channel"), Open("qmlogcacheerror")};
  CloseLast();
  CloseLast();
  std::vector<std::thread> vecThreads;
  for (void* hLog : handles) {
    vecThreads.emplace_back([hLog, &bStop] {
      while (!bStop.load()) {
        LogPrint(hLog, 3, "a line %d", 1);
      }
    });
  }
  for (int iRound = 0; iRound < 30; ++iRound) {
    Open("channel");
    Open("qmlogcacheerror");
    CloseLast();
    CloseLast();
  }
  bStop = true;
  for (std::thread& thread : vecThreads) {
    thread.join();
  }
  for (const char* pszName : {"channel", "qmlogcacheerror"}) {
    for (const std::string& strLine : Lines(pszName)) {
      EXPECT_TRUE(strLine == "L3 a line 1" || strLine.rfind("L3 qmlog dropped[", 0) == 0) << strLine;
    }
  }
}

// In a process of its own, as any other test may have configured this one.
int WritesWhereAndWhatIsUsual() {
  const std::filesystem::path directory =
      std::filesystem::read_symlink("/proc/self/exe").parent_path().parent_path() / "log";
  const bool bMade = !std::filesystem::exists(directory);
  const std::string strFile = (directory / "platform-test-defaults.log").string();
  std::filesystem::remove(strFile);
  void* hLog = LogInit("platform-test-defaults");
  for (int iLevel = 0; iLevel < 33; ++iLevel) {
    LogPrint(hLog, iLevel, "level");
  }
  LogUninit(hLog);
  const std::string strText = ReadAll(strFile);
  std::filesystem::remove(strFile);
  if (bMade) {
    std::error_code ignored;  // another program may have begun to log there
    std::filesystem::remove(directory, ignored);
  }
  return MatchLength(strText, "^" LINE_BEGIN "L3 level\n" LINE_BEGIN "L4 level\n" LINE_BEGIN "L6 level\n$") > 0 ? 0 : 1;
}

TEST(LogDefaultsDeathTest, LevelsThreeFourAndSixBesideTheProgramsDirectory) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(_exit(WritesWhereAndWhatIsUsual()), testing::ExitedWithCode(0), "");
}

// What an observer was given.
struct Observed {
  std::mutex mutex;
  Texts vecTexts;
  static void Take(const char* pText, unsigned long uLength, void* pUser) {
    auto& self = *static_cast<Observed*>(pUser);
    const std::lock_guard lock(self.mutex);
    self.vecTexts.emplace_back(pText, uLength);
  }
};

TEST_F(LogTest, AnObserverIsGivenTheLinesOfItsChannelAndLevel) {
  void* const hLog = Open("watched");
  void* const hOther = Open("other");
  Observed observed;
  ASSERT_EQ(QmLogObserve("watched", kLogLifecycle, Observed::Take, &observed), 0);
  LogPrint(hLog, kLogLifecycle, "count[%d]\n", 7);
  LogPrintStr(hLog, kLogLifecycle, "fixed");
  LogPrint(hLog, kLogLifecycle, "%s", std::string(5000, 'x').c_str());
  LogPrint(hLog, kLogWarning, "another level");
  LogPrint(hLog, kLogNormal, "a level that is off");
  LogPrint(hOther, kLogLifecycle, "another channel");
  ASSERT_EQ(QmLogObserve("watched", 0, nullptr, nullptr), 0);
  LogPrintStr(hLog, kLogLifecycle, "after its end");
  EXPECT_EQ(observed.vecTexts, (Texts{"count[7]\n", "fixed", std::string(5000, 'x')}));
}

TEST_F(LogTest, AnObserverOfALevelThatIsOffIsGivenNothing) {
  Configure(1U << 3, kNoRotation, 5);
  void* const hLog = Open("watched");
  Observed observed;
  ASSERT_EQ(QmLogObserve("watched", kLogLifecycle, Observed::Take, &observed), 0);
  LogPrintStr(hLog, kLogLifecycle, "text");
  ASSERT_EQ(QmLogObserve("watched", 0, nullptr, nullptr), 0);
  EXPECT_EQ(observed.vecTexts, Texts{});
}

TEST_F(LogTest, AnObserverIsNotCalledAnyMoreOnceItWasTakenAway) {
  void* const hLog = Open("watched");
  std::atomic<bool> bStop{false};
  std::thread writer([&] {
    while (!bStop.load()) {
      LogPrintStr(hLog, kLogLifecycle, "text");
    }
  });
  for (int i = 0; i < 200; ++i) {
    // Gone before the next turn: a call that came late would be found by the sanitizers.
    const auto pObserved = std::make_unique<Observed>();
    ASSERT_EQ(QmLogObserve("watched", kLogLifecycle, Observed::Take, pObserved.get()), 0);
    ASSERT_EQ(QmLogObserve("watched", 0, nullptr, nullptr), 0);
  }
  bStop.store(true);
  writer.join();
}

TEST_F(LogTest, RefusesAnObserverOfNoChannel) {
  EXPECT_NE(QmLogObserve(nullptr, kLogLifecycle, Observed::Take, nullptr), 0);
}

}  // namespace
