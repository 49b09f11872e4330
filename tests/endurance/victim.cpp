#include "victim.h"

#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "destination.h"
#include "tests/component/cache_file_fixture.h"
#include "tests/component/hang_guard.h"

namespace {

constexpr char kVictim[] = "--victim";
constexpr int kTalePipe = 3;
constexpr int kHung = 3;
constexpr unsigned int kOthersShare = 5;

// One line, in one write, so that it is told whole or not at all.
void Tell(const char* pszWhat, const std::string& strKey) {
  const std::string strLine = std::string(pszWhat) + " " + strKey + "\n";
  if (write(kTalePipe, strLine.data(), strLine.size()) != static_cast<ssize_t>(strLine.size())) {
    _exit(kHung);
  }
}

std::vector<std::string> ArgumentsOf(const std::string& strRoot, const VictimOrders& orders) {
  const KillPoint& point = orders.point;
  return {"/proc/self/exe",
          kVictim,
          strRoot,
          std::to_string(orders.tStart),
          std::to_string(orders.uFirstRecord),
          std::to_string(orders.uRecords),
          std::to_string(orders.uFiller),
          std::to_string(orders.uDeliveries),
          std::to_string(static_cast<int>(point.moment)),
          point.strCall,
          point.strDetail,
          point.strWithin,
          std::to_string(point.uOccurrence)};
}

unsigned int NumberOf(const char* pszText) {
  constexpr int kDecimal = 10;
  return static_cast<unsigned int>(strtoul(pszText, nullptr, kDecimal));
}

VictimOrders OrdersOf(char** ppArguments) {
  VictimOrders orders;
  orders.tStart = static_cast<time_t>(NumberOf(ppArguments[3]));
  orders.uFirstRecord = NumberOf(ppArguments[4]);
  orders.uRecords = NumberOf(ppArguments[5]);
  orders.uFiller = NumberOf(ppArguments[6]);
  orders.uDeliveries = NumberOf(ppArguments[7]);
  orders.point.moment = static_cast<Moment>(NumberOf(ppArguments[8]));
  orders.point.strCall = ppArguments[9];
  orders.point.strDetail = ppArguments[10];
  orders.point.strWithin = ppArguments[11];
  orders.point.uOccurrence = NumberOf(ppArguments[12]);
  return orders;
}

void Live(const std::string& strRoot, const VictimOrders& orders) {
  const CInstallPrefix prefix(strRoot);
  CReplacedClock::Get().Reset();
  CReplacedClock::Get().Freeze(orders.tStart);
  CLogRecorder::Get().SetTap([](const LogLine& line) { const CWatchedCall call("log", line.strText); });
  CTestRouter router;
  std::atomic<unsigned int> uDelivered{0};
  router.m_bKeepSent = false;
  router.m_pfnOnReply = [](const Answer& answer) { const CWatchedCall call("reply", answer.strText); };
  router.m_pfnOnSend = [&](const SentMessage& sent) {
    const std::string strKey = KeyOf(ContentOf(sent.strText));
    Tell("delivered", strKey);
    if (!router.DeliverResult(sent.u64DataId, 0)) {
      Tell("unheard", strKey);
    }
    ++uDelivered;
    return 0U;
  };
  CPluginHost host;
  ArmKillSwitch(orders.point);
  host.BeginLife(&router);
  for (unsigned int u = 0; u < orders.uRecords; ++u) {
    const std::string strKey = "r" + std::to_string(orders.uFirstRecord + u);
    const GUID& sender = u % kOthersShare == kOthersShare - 1 ? kOtherProducer : kProducer;
    Tell("offered", strKey);
    const std::optional<Answer> answer =
        router.Deliver(LOGCACHE_MSG_SYNC_EDR_PRIV_NORMAL, sender, strKey + ";" + std::string(orders.uFiller, 'x'));
    Tell(answer && answer->strText == "success" ? "accepted" : "refused", strKey);
  }
  if (orders.uDeliveries != 0) {
    static_cast<void>(router.DeliverConnect());
    const auto guard = std::chrono::steady_clock::now() + kHangGuard;
    while (uDelivered < orders.uDeliveries) {
      if (std::chrono::steady_clock::now() >= guard) {
        _exit(kHung);
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  }
  host.EndLife();
  Tell("stopped", "");
}

void Note(VictimTale& tale, const std::string& strLine) {
  std::istringstream stream(strLine);
  std::string strWhat;
  std::string strKey;
  stream >> strWhat >> strKey;
  if (strWhat == "offered") {
    tale.vecOffered.push_back(strKey);
  } else if (strWhat == "accepted") {
    tale.vecAccepted.push_back(strKey);
  } else if (strWhat == "refused") {
    tale.vecRefused.push_back(strKey);
  } else if (strWhat == "delivered") {
    tale.vecDelivered.push_back(strKey);
  } else if (strWhat == "unheard") {
    ++tale.uUnheard;
  } else if (strWhat == "stopped") {
    tale.bStopped = true;
  }
}

}  // namespace

VictimTale RunVictim(const std::string& strRoot, const VictimOrders& orders) {
  std::array<int, 2> pipe{};
  if (pipe2(pipe.data(), O_CLOEXEC) != 0) {
    throw std::runtime_error(std::string("pipe: ") + strerror(errno));
  }
  std::vector<std::string> vecArguments = ArgumentsOf(strRoot, orders);
  std::vector<char*> vecPointers;
  for (std::string& strArgument : vecArguments) {
    vecPointers.push_back(strArgument.data());
  }
  vecPointers.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipe[1], kTalePipe);
  pid_t iChild = 0;
  const int iSpawned = posix_spawn(&iChild, vecPointers[0], &actions, nullptr, vecPointers.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  close(pipe[1]);
  if (iSpawned != 0) {
    close(pipe[0]);
    throw std::runtime_error(std::string("posix_spawn: ") + strerror(iSpawned));
  }
  std::string strTold;
  std::array<char, 65536> block{};
  ssize_t iRead = 0;
  while ((iRead = read(pipe[0], block.data(), block.size())) > 0) {
    strTold.append(block.data(), static_cast<size_t>(iRead));
  }
  close(pipe[0]);
  int iStatus = 0;
  waitpid(iChild, &iStatus, 0);
  VictimTale tale;
  tale.bKilled = WIFSIGNALED(iStatus) && WTERMSIG(iStatus) == SIGKILL;
  std::istringstream stream(strTold);
  for (std::string strLine; std::getline(stream, strLine);) {
    Note(tale, strLine);
  }
  return tale;
}

void LiveAsVictim(int iArguments, char** ppArguments) {
  constexpr int kArguments = 13;
  if (iArguments == kArguments && strcmp(ppArguments[1], kVictim) == 0) {
    Live(ppArguments[2], OrdersOf(ppArguments));
    _exit(0);
  }
}
