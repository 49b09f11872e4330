// A listener that is no host as it should be: whatever it does, no call waits beyond its time-out.
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstring>
#include <thread>

#include "host/protocol/ingress_protocol.h"
#include "tests/unit/client/client_fixture.h"

namespace {

class HostileHostTest : public ClientTest {
 protected:
  using Behaviour = std::function<void(int iConnection)>;

  // Runs fnBehave on each connection, then closes it; the last one may still be served when the test's body has ended.
  void Listen(Behaviour fnBehave) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strncpy(address.sun_path, Path().c_str(), sizeof(address.sun_path) - 1);
    m_iListener = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    ASSERT_EQ(::bind(m_iListener, reinterpret_cast<const sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(m_iListener, 8), 0);
    m_thread = std::thread([this, fnBehave = std::move(fnBehave)] {
      for (;;) {
        const int iConnection = ::accept(m_iListener, nullptr, nullptr);
        if (iConnection < 0) {
          return;
        }
        fnBehave(iConnection);
        ::close(iConnection);
      }
    });
    Open();
  }

  void TearDown() override {
    m_bEnd = true;
    qm_client_close(m_pClient, 0);
    m_pClient = nullptr;
    ::shutdown(m_iListener, SHUT_RDWR);
    if (m_thread.joinable()) {
      m_thread.join();
    }
    ::close(m_iListener);
    ClientTest::TearDown();
  }

  static void Write(int iConnection, const std::string& strBytes) {
    static_cast<void>(::send(iConnection, strBytes.data(), strBytes.size(), MSG_NOSIGNAL));
  }

  static std::string Welcome(uint32_t uWindow = 1024) {
    std::string strFrame;
    IngressWelcome welcome;
    welcome.uWindow = uWindow;
    AppendWelcome(strFrame, welcome);
    return strFrame;
  }

  // Until the other side closes.
  static void ReadAll(int iConnection) {
    char aBuffer[4096];
    while (::recv(iConnection, aBuffer, sizeof(aBuffer), 0) > 0) {
    }
  }

  std::atomic<bool> m_bEnd{false};
  std::atomic<size_t> m_uConnections{0};

 private:
  int m_iListener = -1;
  std::thread m_thread;
};

TEST_F(HostileHostTest, ASilentHostHoldsNoCall) {
  Listen(ReadAll);
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_process(m_pClient, 30), 0);
  EXPECT_EQ(qm_client_flush(m_pClient, 30), QM_CLIENT_E_TIMEOUT);
  EXPECT_EQ(m_iConnected, 0);
}

TEST_F(HostileHostTest, AHostThatNeverAnswersHoldsNoCall) {
  Listen([](int iConnection) {
    Write(iConnection, Welcome());
    ReadAll(iConnection);
  });
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  ProcessUntil([&] { return m_iConnected == 1; });
  EXPECT_EQ(qm_client_flush(m_pClient, 30), QM_CLIENT_E_TIMEOUT);
  EXPECT_EQ(qm_client_close(m_pClient, 30), QM_CLIENT_E_TIMEOUT);
  m_pClient = nullptr;
  EXPECT_EQ(m_vecResults, (std::vector<Result>{{1, QM_CLIENT_NO_ANSWER, 0}}));
}

TEST_F(HostileHostTest, AHostThatNeverReadsHoldsNoCall) {
  Listen([this](int iConnection) {
    Write(iConnection, Welcome());
    while (!m_bEnd) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ::shutdown(iConnection, SHUT_RDWR);
  });
  const std::string strBig(1U << 20, 'b');
  int iResult = QM_CLIENT_OK;
  for (int i = 0; i < 64 && iResult == QM_CLIENT_OK; ++i) {
    iResult = Send(strBig, 1, 30);
  }
  EXPECT_EQ(iResult, QM_CLIENT_E_TIMEOUT);
}

TEST_F(HostileHostTest, AFloodOfAnswersToNothingHoldsNoCall) {
  Listen([this](int iConnection) {
    Write(iConnection, Welcome());
    std::string strFlood;
    for (int i = 0; i < 10000; ++i) {
      AppendAnswer(strFlood, {0, static_cast<uint64_t>(i) << 32 | 0xFFFFFFFF, "made up"});
    }
    while (!m_bEnd && ::send(iConnection, strFlood.data(), strFlood.size(), MSG_NOSIGNAL) > 0) {
    }
  });
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  ProcessUntil([&] { return m_iConnected == 1; });
  EXPECT_EQ(qm_client_flush(m_pClient, 100), QM_CLIENT_E_TIMEOUT);
  EXPECT_TRUE(m_vecResults.empty());
}

TEST_F(HostileHostTest, NonsenseEndsTheConnectionAndLosesNothing) {
  const std::string strHuge("\xFF\xFF\xFF\xFF", 4);
  std::string strRuntMessage;
  AppendMessage(strRuntMessage, {10101, 1, GUID{}, "from the host?"});
  const std::vector<std::string> vecNonsense = {"HTTP/1.1 400 Bad Request\r\n\r\n",
                                                strHuge,
                                                std::string(64, '\0'),
                                                Welcome(0),
                                                Welcome() + strHuge,
                                                Welcome() + strRuntMessage,
                                                Welcome() + Welcome()};
  Listen([this, vecNonsense](int iConnection) {
    Write(iConnection, vecNonsense[m_uConnections++ % vecNonsense.size()]);
    ReadAll(iConnection);
  });
  EXPECT_EQ(Send("x", 1), QM_CLIENT_OK);
  for (int i = 0; i < 6000 && m_uConnections <= vecNonsense.size(); ++i) {
    ASSERT_EQ(qm_client_process(m_pClient, 10), 0);
  }
  EXPECT_GT(m_uConnections, vecNonsense.size());
  EXPECT_TRUE(Said("welcome makes no sense"));
  EXPECT_TRUE(Said("a frame that makes no sense"));
  EXPECT_EQ(qm_client_pending(m_pClient), 1U);
  EXPECT_TRUE(m_vecResults.empty());
}

TEST_F(HostileHostTest, AnAnswerIsTakenOnce) {
  Listen([](int iConnection) {
    Write(iConnection, Welcome());
    std::string strBytes;
    char aBuffer[4096];
    IngressMessage message;
    // The hello of 16 bytes, then a whole message of one byte.
    constexpr size_t kAll = 16 + kIngressPrefixSize + kIngressMessageHeaderSize + 1;
    while (strBytes.size() < kAll) {
      const ssize_t iRead = ::recv(iConnection, aBuffer, sizeof(aBuffer), 0);
      if (iRead <= 0) {
        return;
      }
      strBytes.append(aBuffer, static_cast<size_t>(iRead));
    }
    if (ReadMessage(std::string_view(strBytes).substr(16 + kIngressPrefixSize), message)) {
      std::string strAnswers;
      AppendAnswer(strAnswers, {0, message.u64RequestId, ""});
      AppendAnswer(strAnswers, {0, message.u64RequestId, ""});
      AppendAnswer(strAnswers, {0xE0020004, message.u64RequestId, ""});
      Write(iConnection, strAnswers);
    }
    ReadAll(iConnection);
  });
  EXPECT_EQ(Send("x", 5), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_flush(m_pClient, kPatienceMs), QM_CLIENT_OK);
  EXPECT_EQ(qm_client_process(m_pClient, 20), 0);
  EXPECT_EQ(m_vecResults, (std::vector<Result>{{5, QM_CLIENT_ACCEPTED, 0}}));
}

}  // namespace
