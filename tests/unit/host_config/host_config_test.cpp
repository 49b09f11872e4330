#include "host/config/host_config.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "config_test_case.h"

namespace {

class HostConfigTest : public CConfigTestCase {};

TEST_F(HostConfigTest, ASectionForThePluginIsEnough) {
  ASSERT_EQ(Load("[plugin logcache]\n"), std::vector<std::string>{});
  EXPECT_EQ(m_Config.strDataDir, Path("data"));
  EXPECT_EQ(m_Config.strLogDir, Path("log"));
  EXPECT_EQ(m_Config.uLogLevels, (1U << 3) | (1U << 4) | (1U << 6));
  EXPECT_EQ(m_Config.u64LogMaxFileSize, 10U << 20);
  EXPECT_EQ(m_Config.uLogMaxFiles, 5U);
  EXPECT_EQ(m_Config.iStorageSync, 2);
  EXPECT_EQ(m_Config.router.uCompletionThreads, 1U);
  EXPECT_EQ(m_Config.router.uReplyTimeoutMs, 30000U);
  EXPECT_EQ(m_Config.ingress.strSocketPath, Path("data/qmhost.sock"));
  EXPECT_TRUE(m_Config.ingress.vecAllowedUsers.empty());
  EXPECT_EQ(m_Config.ingress.uMaxFrame, 16U << 20);
  EXPECT_EQ(m_Config.ingress.uWindow, 1024U);
  EXPECT_EQ(m_Config.fileDriver.strPath, Path("data/records.jsonl"));
  EXPECT_TRUE(m_Config.fileDriver.bSync);
  ASSERT_EQ(m_Config.vecPlugins.size(), 1U);
  EXPECT_EQ(m_Config.vecPlugins[0].strName, "logcache");
  EXPECT_EQ(m_Config.vecPlugins[0].strPath, Path("lib/libqmlogcache.so"));
  EXPECT_EQ(m_Config.vecPlugins[0].strGuid, "5D3B1A07-8E24-4C91-B6F0-2A7C9E41D358");
}

TEST_F(HostConfigTest, ReadsEveryKey) {
  std::ofstream(m_Prefix / "other.so") << "library";
  ASSERT_EQ(Load("[host]\ndata_dir = /var/lib/x\n[log]\ndir=l\nlevels=1, 6\nmax_file_size=64k\nmax_files=2\n"
                 "[storage]\nsync=normal\n[router]\ncompletion_threads=3\nreply_timeout_ms=5\n"
                 "[ingress]\nsocket=/run/q.sock\nallowed_users=root, 1234\nmax_frame=1M\nwindow=7\n"
                 "stall_timeout_ms=100\nmax_connections=9\nthreads=4\n[link]\ndriver=file\npath=../r\n"
                 "[plugin a]\npath=other.so\nguid=aaaaaaaa-0001-0002-0304-05060708090a\n[plugin b]\nenabled=no\n"),
            std::vector<std::string>{});
  EXPECT_EQ(m_Config.strDataDir, "/var/lib/x");
  EXPECT_EQ(m_Config.strLogDir, Path("l"));
  EXPECT_EQ(m_Config.uLogLevels, (1U << 1) | (1U << 6));
  EXPECT_EQ(m_Config.u64LogMaxFileSize, 65536U);
  EXPECT_EQ(m_Config.uLogMaxFiles, 2U);
  EXPECT_EQ(m_Config.iStorageSync, 1);
  EXPECT_EQ(m_Config.router.uCompletionThreads, 3U);
  EXPECT_EQ(m_Config.router.uReplyTimeoutMs, 5U);
  EXPECT_EQ(m_Config.ingress.strSocketPath, "/run/q.sock");
  EXPECT_EQ(m_Config.ingress.vecAllowedUsers, (std::vector<uid_t>{0, 1234}));
  EXPECT_EQ(m_Config.ingress.uMaxFrame, 1U << 20);
  EXPECT_EQ(m_Config.ingress.uWindow, 7U);
  EXPECT_EQ(m_Config.ingress.uStallTimeoutMs, 100U);
  EXPECT_EQ(m_Config.ingress.uMaxConnections, 9U);
  EXPECT_EQ(m_Config.ingress.uThreads, 4U);
  EXPECT_EQ(m_Config.fileDriver.strPath, (m_Prefix / "../r").lexically_normal().string());
  EXPECT_FALSE(m_Config.fileDriver.bSync);
  ASSERT_EQ(m_Config.vecPlugins.size(), 1U);
  EXPECT_EQ(m_Config.vecPlugins[0].strGuid, "AAAAAAAA-0001-0002-0304-05060708090A");
}

TEST_F(HostConfigTest, NamesTheNearestKnownKeyAndSection) {
  ExpectProblem("[plugin a]\n[ingress]\nmax_fram=1M\n",
                "F:3: unknown key max_fram in [ingress]; did you mean max_frame?");
  ExpectProblem("[plugin a]\n[ingres]\nwindow=1\n", "F:2: unknown section [ingres]; did you mean ingress?");
  ExpectProblem("[plugin a]\n[xyzzy]\n", "F:2: unknown section [xyzzy]");
  ExpectProblem("[plugin a]\ncolour=red\n", "F:2: unknown key colour in [plugin a]");
}

TEST_F(HostConfigTest, TellsAllProblemsAtOnceInTheOrderOfTheirLines) {
  EXPECT_EQ(Load("[router]\ncompletion_threads=0\nreply_timeout_ms=soon\nnonsense\n[storage]\nsync=maybe\n"
                 "[log]\nlevels=3,9\nmax_file_size=1\n[plugin a]\npath=/nowhere.so\n"),
            (std::vector<std::string>{
                "F:2: completion_threads: \"0\" is not between 1 and 64",
                "F:3: reply_timeout_ms: \"soon\" is not a number",
                "F:4: neither a section header, a key with a value, nor a comment",
                "F:6: sync: \"maybe\" is not one of: full, normal",
                "F:8: levels: \"9\" is not between 1 and 6",
                "F:9: max_file_size: \"1\" is not between 4096 and 1073741824",
                "F:11: there is no plug-in library /nowhere.so",
            }));
}

TEST_F(HostConfigTest, AKeyGivenTwiceIsAProblemOfTheSecondLine) {
  ExpectProblem("[plugin a]\n[log]\nmax_files=3\n\nmax_files=4\n",
                "F:5: key max_files of [log] stands already in line 3");
  ExpectProblem("[plugin a]\n[log]\nmax_files=3\n[host]\n[log]\nmax_files=3\n",
                "F:6: key max_files of [log] stands already in line 3");
}

TEST_F(HostConfigTest, AnOverlongLineIsAProblemAndCountsAsOneLine) {
  ExpectProblem("[plugin a]\n[host]\ndata_dir=" + std::string(20000, 'x') + "\n", "F:3: line longer than 8190 bytes");
  EXPECT_EQ(Load("[plugin a]\n# " + std::string(20000, 'x') + "\n[host]\nbad\n"),
            (std::vector<std::string>{"F:2: line longer than 8190 bytes",
                                      "F:4: neither a section header, a key with a value, nor a comment"}));
}

TEST_F(HostConfigTest, BrokenHeadersAndStrayBytesAreProblems) {
  EXPECT_EQ(Load("[plugin a]\n[log\nmax_files=3\n[host]\n=5\n"),
            (std::vector<std::string>{"F:2: section header without ']'; the lines under it are not read",
                                      "F:5: unknown key  in [host]"}));
  ExpectProblem(std::string("[plugin a]\n#x\0y\n", 16), "F:2: line with a zero byte");
  ExpectProblem("data_dir=x\n[plugin a]\n", "F:1: key data_dir stands before the first section");
  ExpectProblem("[plugin a]\n[" + std::string(60, 's') + "]\n",
                "F:2: section name longer than 49 bytes; the lines under it are not read");
}

TEST_F(HostConfigTest, AHeaderWhoseBracketStandsInACommentIsAProblem) {
  ExpectProblem("[plugin a]\n[log ; here]\nmax_files=3\n",
                "F:2: section header without ']'; the lines under it are not read");
  ExpectProblem("[plugin a]\n[log\t;]\nnonsense=3\n",
                "F:2: section header without ']'; the lines under it are not read");
  ExpectProblem("[plugin a]\n[log;x]\n", "F:2: unknown section [log;x]; did you mean log?");
}

TEST_F(HostConfigTest, BlanksAroundAByteOrderMarkAreNoProblem) {
  for (const char* pszHeader :
       {"\xEF\xBB\xBF[plugin a]\n", "\xEF\xBB\xBF  [plugin a]\n", " \t\xEF\xBB\xBF[plugin a]\n"}) {
    EXPECT_EQ(Load(std::string(pszHeader) + "[log]\nmax_files=2\n"), std::vector<std::string>{}) << pszHeader;
    EXPECT_EQ(m_Config.uLogMaxFiles, 2U) << pszHeader;
    EXPECT_EQ(m_Config.vecPlugins.size(), 1U) << pszHeader;
  }
}

TEST_F(HostConfigTest, CommentsBlanksIndentationAndAByteOrderMarkAreNoProblems) {
  EXPECT_EQ(Load("\xEF\xBB\xBF# top\n\n  ; more\n[plugin a] ; here\n  enabled: yes ; and here\n  \t\n[log]\r\n"
                 "  levels=3\r\n  max_files=2\n"),
            std::vector<std::string>{});
  EXPECT_EQ(m_Config.uLogMaxFiles, 2U);
}

TEST_F(HostConfigTest, AMissingPluginIsAProblem) {
  const std::string strMissing = "no plug-in is enabled: a section [plugin NAME] is missing";
  ExpectProblem("", "F:1: " + strMissing);
  ExpectProblem("[host]\n\n", "F:2: " + strMissing);
  ExpectProblem("[plugin a]\nenabled=no\n", "F:2: " + strMissing);
}

TEST_F(HostConfigTest, APluginNeedsANameAndALibraryAndAGuidOfItsOwn) {
  EXPECT_EQ(Load("[plugin]\npath=x\n[plugin a]\n"),
            std::vector<std::string>{"F:1: section [plugin] does not name a plug-in: write [plugin NAME]"});
  ExpectProblem("[plugin a]\nguid=5D3B1A07\n", "F:2: guid: \"5D3B1A07\" is not a GUID");
  ExpectProblem("[plugin a]\nguid=5D3B1A07-8E24-4C91-B6F0-2A7C9E41D3 8\n",
                "F:2: guid: \"5D3B1A07-8E24-4C91-B6F0-2A7C9E41D3 8\" is not a GUID");
  ExpectProblem("[plugin a]\n[plugin b]\n", "F:2: [plugin b] has the same guid as [plugin a]");
  std::filesystem::remove(m_Prefix / "lib" / "libqmlogcache.so");
  ExpectProblem("[host]\n[plugin a]\n", "F:2: there is no plug-in library " + Path("lib/libqmlogcache.so"));
}

TEST_F(HostConfigTest, NumbersAndSizesOutOfRangeAreProblems) {
  ExpectProblem("[plugin a]\n[ingress]\nwindow=99999999999999999999999\n",
                "F:3: window: \"99999999999999999999999\" is not between 1 and 1048576");
  ExpectProblem("[plugin a]\n[ingress]\nwindow=-1\n", "F:3: window: \"-1\" is not a number");
  ExpectProblem("[plugin a]\n[ingress]\nmax_frame=99999999999999999G\n",
                "F:3: max_frame: \"99999999999999999G\" is not between 4096 and 1073741824");
  ExpectProblem("[plugin a]\n[ingress]\nmax_frame=K\n",
                "F:3: max_frame: \"K\" is not a size (a number, followed by K, M or G or nothing)");
  ExpectProblem("[plugin a]\n[ingress]\nthreads=\n", "F:3: threads: \"\" is not a number");
  ExpectProblem("[plugin b]\n[plugin a]\nguid=00000000-0000-0000-0000-000000000001\nenabled=perhaps\n",
                "F:4: enabled: \"perhaps\" is neither yes nor no");
  ExpectProblem("[plugin a]\n[link]\npath=\n", "F:3: path: the path is empty");
}

TEST_F(HostConfigTest, UnknownUsersAreProblems) {
  ExpectProblem("[plugin a]\n[ingress]\nallowed_users=root,no-such-user-here\n",
                "F:3: allowed_users: there is no user \"no-such-user-here\"");
  ExpectProblem("[plugin a]\n[ingress]\nallowed_users=root,,1\n",
                "F:3: allowed_users: a user is missing between two commas");
  ExpectProblem("[plugin a]\n[ingress]\nallowed_users=4294967295\n",
                "F:3: allowed_users: \"4294967295\" is not between 0 and 4294967294");
}

TEST_F(HostConfigTest, ASocketPathThatDoesNotFitIsAProblem) {
  const std::string strPath = "/" + std::string(107, 's');
  ExpectProblem("[plugin a]\n[ingress]\nsocket=" + strPath + "\n",
                "F:3: socket: the path " + strPath + " is longer than the 107 bytes of a socket's name");
  EXPECT_EQ(Load("[plugin a]\n[ingress]\nsocket=" + strPath.substr(0, 107) + "\n"), std::vector<std::string>{});
}

TEST_F(HostConfigTest, ALogChannelKeepsTwoFilesAtLeast) {
  ExpectProblem("[plugin a]\n[log]\nmax_files=1\n", "F:3: max_files: \"1\" is not between 2 and 1000");
  EXPECT_EQ(Load("[plugin a]\n[log]\nmax_files=2\n"), std::vector<std::string>{});
}

TEST_F(HostConfigTest, ARecordFileThatIsNoFileIsAProblem) {
  ExpectProblem("[plugin a]\n[link]\npath=lib\n", "F:3: path: " + Path("lib") + " is a directory");
  ASSERT_EQ(mkfifo(Path("fifo").c_str(), 0600), 0);
  ExpectProblem("[plugin a]\n[link]\npath=fifo\n",
                "F:3: path: " + Path("fifo") + " is there and is not a regular file");
  std::ofstream(m_Prefix / "records") << "line\n";
  ExpectProblem("[plugin a]\n[link]\npath=records/below\n", "F:3: path: " + Path("records") + " is not a directory");
  EXPECT_EQ(Load("[plugin a]\n[link]\npath=records\n"), std::vector<std::string>{});
  std::filesystem::create_directories(m_Prefix / "data" / "records.jsonl");
  ExpectProblem("[plugin a]\n[link]\n", "F:2: the default of path: " + Path("data/records.jsonl") + " is a directory");
}

TEST_F(HostConfigTest, ASocketPathThatSomethingElseHoldsIsAProblem) {
  ExpectProblem("[plugin a]\n[ingress]\nsocket=lib\n", "F:3: socket: " + Path("lib") + " is a directory");
  std::ofstream(m_Prefix / "plain") << "text";
  ExpectProblem("[plugin a]\n[ingress]\nsocket=plain\n",
                "F:3: socket: " + Path("plain") + " is there and is not a socket");
  ExpectProblem("[plugin a]\n[ingress]\nsocket=plain/sock\n", "F:3: socket: " + Path("plain") + " is not a directory");
  ASSERT_EQ(mknod(Path("sock").c_str(), S_IFSOCK | 0600, 0), 0);
  EXPECT_EQ(Load("[plugin a]\n[ingress]\nsocket=sock\n"), std::vector<std::string>{});
}

TEST_F(HostConfigTest, ADirectoryWhoseWayIsBarredByAFileIsAProblem) {
  std::ofstream(m_Prefix / "plain") << "text";
  EXPECT_EQ(Load("[plugin a]\n[host]\ndata_dir=plain\n[log]\ndir=plain/a/b\n"),
            (std::vector<std::string>{"F:3: data_dir: " + Path("plain") + " is not a directory",
                                      "F:5: dir: " + Path("plain") + " is not a directory"}));
  EXPECT_EQ(Load("[plugin a]\n[host]\ndata_dir=lib/new/deeper\n[log]\ndir=lib\n"), std::vector<std::string>{});
}

TEST_F(HostConfigTest, AFileThatCannotBeReadIsOneProblem) {
  const auto vecProblems = LoadHostConfig(Path("missing.conf"), m_Prefix.string(), m_Config);
  ASSERT_EQ(vecProblems.size(), 1U);
  EXPECT_EQ(FormatProblem("F", vecProblems[0]), "F: cannot be opened: No such file or directory");
  const auto vecDirectory = LoadHostConfig(m_Prefix.string(), m_Prefix.string(), m_Config);
  ASSERT_EQ(vecDirectory.size(), 1U);
  EXPECT_EQ(vecDirectory[0].strText, "is not a regular file");
  ExpectProblem(std::string(2U << 20, '#'), "F: is longer than 1 MiB");
}

TEST_F(HostConfigTest, TheStatusIsOffUnlessAnAddressIsGiven) {
  ASSERT_EQ(Load("[plugin a]\n"), std::vector<std::string>{});
  EXPECT_EQ(m_Config.status.strAddress, "");
  ASSERT_EQ(Load("[plugin a]\n[status]\nlisten = 127.0.0.1:9478\n"), std::vector<std::string>{});
  EXPECT_EQ(m_Config.status.strAddress, "127.0.0.1");
  EXPECT_EQ(m_Config.status.uPort, 9478);
  ASSERT_EQ(Load("[plugin a]\n[status]\nlisten = [::1]:80\n"), std::vector<std::string>{});
  EXPECT_EQ(m_Config.status.strAddress, "::1");
  EXPECT_EQ(m_Config.status.uPort, 80);
}

TEST_F(HostConfigTest, TheStatusIsForThisMachineAlone) {
  for (const char* pszElsewhere :
       {"0.0.0.0:9478", "192.168.1.1:9478", "[::]:9478", "[fe80::1]:9478", "[::ffff:127.0.0.1]:1"}) {
    ExpectProblem(std::string("[plugin a]\n[status]\nlisten = ") + pszElsewhere + "\n",
                  std::string("F:3: listen: \"") + pszElsewhere +
                      "\" can be reached from elsewhere; only 127.0.0.0/8 and [::1] are taken");
  }
  for (const char* pszNone :
       {"9478", "localhost:9478", "::1:9478", "[127.0.0.1]:9478", ":9478", "[::1]", "127.1:9478"}) {
    ExpectProblem(std::string("[plugin a]\n[status]\nlisten = ") + pszNone + "\n",
                  std::string("F:3: listen: \"") + pszNone +
                      "\" is not an address and a port, such as 127.0.0.1:9478 or [::1]:9478");
  }
  ExpectProblem("[plugin a]\n[status]\nlisten = 127.0.0.1:0\n", "F:3: listen: \"0\" is not between 1 and 65535");
  ExpectProblem("[plugin a]\n[status]\nlisten = 127.0.0.1:65536\n",
                "F:3: listen: \"65536\" is not between 1 and 65535");
  ExpectProblem("[plugin a]\n[status]\nlisten = 127.0.0.1:\n", "F:3: listen: \"\" is not a number");
}

}  // namespace
