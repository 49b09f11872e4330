// The built program against an ingress server with a fake router behind it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fstream>
#include <iterator>
#include <thread>

#include "host/protocol/host_status.h"
#include "host/protocol/sender_guid.h"
#include "tests/unit/host_ingress/ingress_fixture.h"
#include "tests/unit/tools/run_program.h"

namespace {

using Arguments = std::vector<std::string>;

class QmsendTest : public IngressTest {
 protected:
  std::string WriteFile(const std::string& strName, const std::string& strContent) {
    const std::string strPath = m_strDirectory + "/" + strName;
    std::ofstream(strPath, std::ios::binary) << strContent;
    return strPath;
  }

  Arguments CommandLine(const Arguments& vecMore) const {
    Arguments vecAll = {QMSEND_PATH, "--socket", Path()};
    vecAll.insert(vecAll.end(), vecMore.begin(), vecMore.end());
    return vecAll;
  }

  ProgramResult Run(const Arguments& vecMore, const std::string& strInput = {}) {
    const std::string strPath = WriteFile("stdin", strInput);
    const int iInput = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
    CProgram program(m_strDirectory, CommandLine(vecMore), iInput);
    ::close(iInput);
    return program.Wait();
  }

  std::vector<std::string> Payloads() const {
    std::vector<std::string> vecPayloads;
    for (const Delivery& delivery : m_pRouter->Deliveries()) {
      vecPayloads.push_back(delivery.strPayload);
    }
    return vecPayloads;
  }

  void StopServer() {
    m_pServer->Stop();
    m_pServer.reset();
  }
};

std::string ReadFile(const std::string& strPath) {
  std::ifstream file(strPath, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool Has(const std::string& strText, const std::string& strPart) {
  return strText.find(strPart) != std::string::npos;
}

TEST_F(QmsendTest, SendsEveryLineOfStandardInputInOrder) {
  Serve();
  const ProgramResult result = Run({}, "one\n\ntwo\r\nlast");
  EXPECT_EQ(result.iExitCode, 0) << result.strErrors;
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"one", "two\r", "last"}));
  EXPECT_TRUE(Has(result.strErrors, "accepted 3, refused 0, skipped 1")) << result.strErrors;
  EXPECT_EQ(result.strOutput, "");
  EXPECT_EQ(m_pRouter->Deliveries()[0].uMsgType, 10101U);
}

TEST_F(QmsendTest, SendsManyRecordsThroughASmallWindow) {
  m_options.uWindow = 8;
  Serve();
  std::string strInput;
  std::vector<std::string> vecExpected;
  for (int i = 0; i < 20000; ++i) {
    vecExpected.push_back("record " + std::to_string(i));
    strInput += vecExpected.back() + "\n";
  }
  const ProgramResult result = Run({"--quiet"}, strInput);
  EXPECT_EQ(result.iExitCode, 0) << result.strErrors;
  EXPECT_EQ(result.strErrors, "");
  EXPECT_TRUE(Payloads() == vecExpected);
}

TEST_F(QmsendTest, ReadsFilesAndStandardInputInTheOrderGiven) {
  Serve();
  const std::string strFirst = WriteFile("a.log", "a1\na2");
  const std::string strSecond = WriteFile("b.log", "b1\n");
  const ProgramResult result = Run({strFirst, "-", strSecond}, "in\n");
  EXPECT_EQ(result.iExitCode, 0) << result.strErrors;
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a1", "a2", "in", "b1"}));
}

TEST_F(QmsendTest, SendsWholeFilesAndZeroDelimitedRecords) {
  Serve();
  EXPECT_EQ(Run({"--whole-file", WriteFile("a", "x\ny\n"), WriteFile("b", "z")}).iExitCode, 0);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"x\ny\n", "z"}));
  m_pRouter->Clear();
  EXPECT_EQ(Run({"--nul"}, std::string("p\nq\0r", 5)).iExitCode, 0);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"p\nq", "r"}));
}

TEST_F(QmsendTest, OptionsMakeTheMessage) {
  Serve();
  const GUID guid = SenderGuid("my service");
  EXPECT_EQ(Run({"--kind", "epp", "--priority", "real", "--public", "--sender", "my service"}, "x").iExitCode, 0);
  EXPECT_EQ(Run({"--kind", "tag", "--product", "prod", "--combo", "comb", "--no-save"}, "y").iExitCode, 0);
  const auto vecDeliveries = m_pRouter->Deliveries();
  ASSERT_EQ(vecDeliveries.size(), 2U);
  EXPECT_EQ(vecDeliveries[0].uMsgType, 10213U);
  EXPECT_EQ(std::memcmp(&vecDeliveries[0].sender, &guid, sizeof(guid)), 0);
  EXPECT_EQ(vecDeliveries[1].uMsgType, 10300U);
  EXPECT_EQ(vecDeliveries[1].strPayload.size(), 149U);
  EXPECT_EQ(vecDeliveries[1].strPayload[0], 3);
  EXPECT_EQ(vecDeliveries[1].strPayload[8], 2);
  EXPECT_STREQ(vecDeliveries[1].strPayload.data() + 16, "prod");
  EXPECT_STREQ(vecDeliveries[1].strPayload.data() + 80, "comb");
}

TEST_F(QmsendTest, NamesWhatWasRefused) {
  Serve([](const Delivery& delivery) {
    delivery.Reply(delivery.strPayload == "bad" ? 0xA0010014 : 0);
    return 0U;
  });
  const ProgramResult result = Run({}, "good\nbad\ngood\n");
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_TRUE(Has(result.strErrors, "stdin:2: refused, status 0xA0010014 (too many records in memory): \"bad\""))
      << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "accepted 2, refused 1")) << result.strErrors;
}

TEST_F(QmsendTest, NamesALineThatIsTooLongAndSendsTheOthers) {
  m_options.uMaxFrame = 1000;
  Serve();
  const std::string strLongest(1000 - 32, 'l');
  const ProgramResult result = Run({}, "a\n" + strLongest + "x\n" + strLongest + "\nb\n");
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a", strLongest, "b"}));
  EXPECT_TRUE(Has(result.strErrors, "stdin:2: not sent, longer than the host takes: \"lll")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "too long 1")) << result.strErrors;
}

TEST_F(QmsendTest, NamesRecordsWithAZeroByteAndSendsTheOthers) {
  Serve();
  const ProgramResult result = Run({}, std::string("a\nb\0c\nd\n\0\n", 10));
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"a", "d"}));
  const std::string strWhy = ": not sent, it holds a zero byte, where the component would cut it: ";
  EXPECT_TRUE(Has(result.strErrors, "stdin:2" + strWhy + "\"b\\x00c\"")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "stdin:4" + strWhy + "\"\\x00\"")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "accepted 2, refused 0, skipped 0 (empty), with a zero byte 2,"))
      << result.strErrors;
}

TEST_F(QmsendTest, AWholeFileOrACombinedRecordWithAZeroByteIsNotSent) {
  Serve();
  EXPECT_EQ(Run({"--whole-file", WriteFile("a", std::string("x\0", 2)), WriteFile("b", "z")}).iExitCode, 1);
  EXPECT_EQ(Payloads(), std::vector<std::string>{"z"});
  m_pRouter->Clear();
  EXPECT_EQ(Run({"--product", "p", "--quiet"}, std::string("\0x\n", 3)).iExitCode, 1);
  EXPECT_EQ(Payloads(), std::vector<std::string>{});
}

TEST_F(QmsendTest, TheSummaryFileCountsEveryRecordRead) {
  m_options.uMaxFrame = 1000;
  Serve([](const Delivery& delivery) {
    delivery.Reply(delivery.strPayload == "bad" ? 0xA0010014 : 0);
    return 0U;
  });
  const std::string strSummary = WriteFile("summary", "something older and longer than what comes\n");
  const std::string strInput = "good\nbad\n\n\n" + std::string("z\0\n", 3) + std::string(2000, 'l') + "\ngood\ngood";
  const ProgramResult result = Run({"--quiet", "--summary", strSummary}, strInput);
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_EQ(ReadFile(strSummary),
            "accepted 3\nrefused 1\nskipped 2\ntoo_long 1\nzero_byte 1\nmalformed 0\nunanswered 0\n");
}

TEST_F(QmsendTest, TheSummaryFileCountsRecordsWithoutAnswer) {
  Serve([](const Delivery&) { return 0U; });
  const int iInput = ::open(WriteFile("stdin", "a\nb\n").c_str(), O_RDONLY | O_CLOEXEC);
  const std::string strSummary = m_strDirectory + "/summary";
  CProgram program(m_strDirectory, CommandLine({"--summary", strSummary}), iInput);
  ::close(iInput);
  ASSERT_TRUE(m_pRouter->WaitForCount(2));
  StopServer();
  EXPECT_EQ(program.Wait().iExitCode, 1);
  EXPECT_EQ(ReadFile(strSummary),
            "accepted 0\nrefused 0\nskipped 0\ntoo_long 0\nzero_byte 0\nmalformed 0\nunanswered 2\n");
}

TEST_F(QmsendTest, ASummaryFileThatCannotBeMadeStopsItBeforeAnythingIsSent) {
  Serve();
  const ProgramResult result = Run({"--summary", m_strDirectory + "/no/such"}, "x\n");
  EXPECT_EQ(result.iExitCode, 2);
  EXPECT_TRUE(Has(result.strErrors, "/no/such: cannot write the summary: No such file")) << result.strErrors;
  EXPECT_EQ(Payloads(), std::vector<std::string>{});
}

TEST_F(QmsendTest, ASummaryThatCannotBeWrittenIsAnError) {
  Serve();
  const ProgramResult result = Run({"--summary", "/dev/full"}, "x\n");
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_TRUE(Has(result.strErrors, "/dev/full: cannot write the summary: No space left")) << result.strErrors;
}

TEST_F(QmsendTest, ARefusedRecordIsSentAgainUnderRetry) {
  std::atomic<int> iRefusals{3};
  Serve([&](const Delivery& delivery) {
    delivery.Reply(delivery.strPayload == "slow" && iRefusals-- > 0 ? 0xA0010014 : 0);
    return 0U;
  });
  const ProgramResult result = Run({"--retry", "60"}, "a\nslow\nb\n");
  EXPECT_EQ(result.iExitCode, 0) << result.strErrors;
  EXPECT_EQ(m_pRouter->Deliveries().size(), 6U);
  EXPECT_TRUE(Has(result.strErrors, "accepted 3, refused 0")) << result.strErrors;
}

TEST_F(QmsendTest, ARetryEnds) {
  Serve([&](const Delivery& delivery) {
    delivery.Reply(kHostNoReply);
    return 0U;
  });
  const ProgramResult result = Run({"--retry", "1"}, "never\n");
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_GT(m_pRouter->Deliveries().size(), 1U);
  EXPECT_TRUE(Has(result.strErrors, "stdin:1: it may have been taken or not, status 0xE0020005")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "accepted 0, refused 0, skipped 0 (empty), without answer 1")) << result.strErrors;
}

TEST_F(QmsendTest, WithoutAHostItFailsAtOnce) {
  const ProgramResult result = Run({}, "x\n");
  EXPECT_EQ(result.iExitCode, 2);
  EXPECT_TRUE(Has(result.strErrors, "cannot connect to '" + Path() + "'")) << result.strErrors;
}

TEST_F(QmsendTest, UnderRetryItWaitsForTheHost) {
  const std::string strPath = WriteFile("stdin", "x\n");
  const int iInput = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
  CProgram program(m_strDirectory, CommandLine({"--retry", "100"}), iInput);
  ::close(iInput);
  Serve();
  EXPECT_EQ(program.Wait().iExitCode, 0);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"x"}));
}

TEST_F(QmsendTest, ALostConnectionNamesWhatHadNoAnswerAndWhatWasNotSent) {
  m_options.uWindow = 2;
  Serve([&](const Delivery&) { return 0U; });
  const std::string strPath = WriteFile("stdin", "a\nb\nc\nd\n");
  const int iInput = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
  CProgram program(m_strDirectory, CommandLine({"-", WriteFile("more", "e\n")}), iInput);
  ::close(iInput);
  ASSERT_TRUE(m_pRouter->WaitForCount(2));
  StopServer();
  const ProgramResult result = program.Wait();
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_TRUE(Has(result.strErrors, "the host is stopping")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "stdin:1: no answer")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "stdin:2: no answer")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "stdin: stopped after record 2, what follows was not sent")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "more: not sent")) << result.strErrors;
}

TEST_F(QmsendTest, UnderRetryUnansweredRecordsGoToTheNextHost) {
  Serve([&](const Delivery&) { return 0U; });
  const std::string strPath = WriteFile("stdin", "a\nb\nc\n");
  const int iInput = ::open(strPath.c_str(), O_RDONLY | O_CLOEXEC);
  CProgram program(m_strDirectory, CommandLine({"--retry", "100"}), iInput);
  ::close(iInput);
  ASSERT_TRUE(m_pRouter->WaitForCount(3));
  StopServer();
  Serve();
  const ProgramResult result = program.Wait();
  EXPECT_EQ(result.iExitCode, 0) << result.strErrors;
  auto vecPayloads = Payloads();
  std::sort(vecPayloads.begin(), vecPayloads.end());
  EXPECT_EQ(vecPayloads, (std::vector<std::string>{"a", "b", "c"}));
  EXPECT_TRUE(Has(result.strErrors, "accepted 3")) << result.strErrors;
}

TEST_F(QmsendTest, ARecordGoesOutWithoutWaitingForMore) {
  Serve();
  int aPipe[2];
  ASSERT_EQ(::pipe2(aPipe, O_CLOEXEC), 0);
  CProgram program(m_strDirectory, CommandLine({}), aPipe[0]);
  ::close(aPipe[0]);
  ASSERT_EQ(::write(aPipe[1], "first\nsec", 9), 9);
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  ASSERT_EQ(::write(aPipe[1], "ond\n", 4), 4);
  ASSERT_TRUE(m_pRouter->WaitForCount(2));
  ::close(aPipe[1]);
  EXPECT_EQ(program.Wait().iExitCode, 0);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"first", "second"}));
}

TEST_F(QmsendTest, ANamedPipeIsWaitedForWithoutItsWriter) {
  Serve();
  const std::string strPipe = m_strDirectory + "/pipe";
  ASSERT_EQ(::mkfifo(strPipe.c_str(), 0600), 0);
  const int iInput = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  CProgram program(m_strDirectory, CommandLine({WriteFile("a", "before\n"), strPipe}), iInput);
  ::close(iInput);
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  std::ofstream(strPipe) << "through the pipe\n";
  EXPECT_EQ(program.Wait().iExitCode, 0);
  EXPECT_EQ(Payloads(), (std::vector<std::string>{"before", "through the pipe"}));
}

TEST_F(QmsendTest, AnInterruptStopsReadingAndWaitsForAnswers) {
  Serve([&](const Delivery&) { return 0U; });
  int aPipe[2];
  ASSERT_EQ(::pipe2(aPipe, O_CLOEXEC), 0);
  CProgram program(m_strDirectory, CommandLine({}), aPipe[0]);
  ::close(aPipe[0]);
  ASSERT_EQ(::write(aPipe[1], "a\nb\n", 4), 4);
  ASSERT_TRUE(m_pRouter->WaitForCount(2));
  const auto vecDeliveries = m_pRouter->Deliveries();
  vecDeliveries[0].Reply();
  program.Signal(SIGINT);
  vecDeliveries[1].Reply();
  const ProgramResult result = program.Wait();
  ::close(aPipe[1]);
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_TRUE(Has(result.strErrors, "accepted 2, refused 0")) << result.strErrors;
  EXPECT_TRUE(Has(result.strErrors, "stdin: stopped after record 2")) << result.strErrors;
}

TEST_F(QmsendTest, ASecondInterruptWaitsForNothing) {
  Serve([&](const Delivery&) { return 0U; });
  int aPipe[2];
  ASSERT_EQ(::pipe2(aPipe, O_CLOEXEC), 0);
  CProgram program(m_strDirectory, CommandLine({}), aPipe[0]);
  ::close(aPipe[0]);
  ASSERT_EQ(::write(aPipe[1], "a\n", 2), 2);
  ASSERT_TRUE(m_pRouter->WaitForCount(1));
  program.Signal(SIGINT);
  program.Signal(SIGTERM);
  const ProgramResult result = program.Wait();
  ::close(aPipe[1]);
  EXPECT_EQ(result.iExitCode, 1);
  EXPECT_TRUE(Has(result.strErrors, "stdin:1: no answer")) << result.strErrors;
}

TEST_F(QmsendTest, WrongUsageIsSaid) {
  Serve();
  for (const Arguments& vecWrong :
       {Arguments{"--priority", "urgent"}, Arguments{"--kind", "x"}, Arguments{"--retry", "-1"},
        Arguments{"--nul", "--whole-file"}, Arguments{"--unknown"}, Arguments{"--product", std::string(64, 'p')},
        Arguments{"--sender", ""}, Arguments{m_strDirectory + "/none"}, Arguments{m_strDirectory}}) {
    const ProgramResult result = Run(vecWrong, "x\n");
    EXPECT_EQ(result.iExitCode, 2) << vecWrong[0];
    EXPECT_TRUE(Has(result.strErrors, "qmsend: ")) << vecWrong[0];
  }
  EXPECT_TRUE(m_pRouter->Deliveries().empty());
}

TEST_F(QmsendTest, HelpAndVersionNeedNoHost) {
  const ProgramResult help = Run({"--help"});
  EXPECT_EQ(help.iExitCode, 0);
  EXPECT_TRUE(Has(help.strOutput, "--whole-file"));
  EXPECT_TRUE(Has(help.strOutput, "Empty records are not"));
  const ProgramResult version = Run({"--version"});
  EXPECT_EQ(version.iExitCode, 0);
  EXPECT_EQ(version.strOutput.rfind("qmsend ", 0), 0U);
}

}  // namespace
