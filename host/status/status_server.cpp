#include "host/status/status_server.h"

#include <atomic>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/address.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <list>
#include <thread>
#include <utility>

#include "host/router/thread_setup.h"
#include "host/service/loop.h"
#include "host/status/http_answers.h"
#include "host/status/status_session.h"
#include "platform/log.h"

namespace {

namespace asio = boost::asio;
using asio::ip::tcp;
using boost::system::error_code;

constexpr std::chrono::milliseconds kAcceptPause{100};
using Sessions = std::list<std::shared_ptr<CStatusSession>>;

class CStatusServer final : public IStatusServer {
 public:
  CStatusServer(const StatusOptions& options, StatusHandlers handlers)
      : m_options(options),
        m_handlers(std::move(handlers)),
        m_fnAnswer(
            [this](const StatusRequest& request) { return AnswerRequest(request, m_options, m_handlers.fnDocument); }),
        m_acceptor(m_ioContext),
        m_acceptTimer(m_ioContext),
        m_tickTimer(m_ioContext) {}
  ~CStatusServer() override { Stop(); }

  bool Start(std::string& strError) override {
    m_hLog = LogInit("qmhost");
    ListenIfNot();
    asio::post(m_ioContext, [this] { Tick(); });
    try {
      m_thread = std::thread([this] {
        SetUpThread("qmhost-status");
        Run();
      });
    } catch (const std::exception& error) {
      strError = std::string("cannot start the status thread: ") + error.what();
      return false;
    }
    return true;
  }

  void Stop() override {
    m_ioContext.stop();
    if (m_thread.joinable()) {
      m_thread.join();
    }
    LogUninit(std::exchange(m_hLog, nullptr));
  }

 private:
  // The address may be another program's for now. Of a row of failures one is told.
  void ListenIfNot() {
    if (m_bListening) {
      return;
    }
    const error_code error = Listen();
    if (!error) {
      m_bListening = true;
      LogPrint(m_hLog, kLogLifecycle, "status served on %s port %u", m_options.strAddress.c_str(),
               static_cast<unsigned int>(m_options.uPort));
      AcceptNext();
    } else if (std::exchange(m_lastFailure, error) != error) {
      LogPrint(m_hLog, kLogWarning, "*qmhost the status cannot be served on %s port %u for now: %s",
               m_options.strAddress.c_str(), static_cast<unsigned int>(m_options.uPort), error.message().c_str());
    }
  }

  error_code Listen() {
    error_code error;
    const asio::ip::address address = asio::ip::make_address(m_options.strAddress, error);
    const auto fnDo = [&error](const auto& fnStep) {
      if (!error) {
        fnStep();
      }
    };
    const tcp::endpoint endpoint(address, m_options.uPort);
    fnDo([&] { m_acceptor.open(endpoint.protocol(), error); });
    fnDo([&] { m_acceptor.set_option(tcp::acceptor::reuse_address(true), error); });
    fnDo([&] { m_acceptor.bind(endpoint, error); });
    fnDo([&] { m_acceptor.listen(asio::socket_base::max_listen_connections, error); });
    if (error) {
      error_code ignored;
      m_acceptor.close(ignored);
    }
    return error;
  }

  // What a handler throws costs the connection or the tick it came from, never the thread.
  void Run() noexcept {
    const CLoopThread loopThread(m_loop);
    while (!m_ioContext.stopped()) {
      try {
        GoOn();
        m_ioContext.run();
      } catch (const std::exception& error) {
        LogPrint(m_hLog, kLogWarning, "*qmhost the status page: %s", error.what());
      } catch (...) {
        LogPrintStr(m_hLog, kLogWarning, "*qmhost the status page: an unknown error");
      }
    }
  }

  // Starts again what ended with a handler that threw.
  void GoOn() {
    try {
      ArmTick();
      AcceptNext();
    } catch (...) {
      std::this_thread::sleep_for(kAcceptPause);
      throw;
    }
  }

  // The turn goes the way of a request.
  void PostTurn() noexcept {
    if (m_bTurnPosted.exchange(true)) {
      return;
    }
    try {
      asio::post(m_ioContext, [this] {
        m_bTurnPosted = false;
        m_loop.Turn();
      });
    } catch (const std::exception&) {
      m_bTurnPosted = false;  // no memory now; the next look asks again
    }
  }

  void ArmTick() {
    if (m_bTicking) {
      return;
    }
    m_tickTimer.expires_after(m_handlers.tick);
    m_tickTimer.async_wait([this](const error_code& error) {
      m_bTicking = false;
      if (!error) {
        Tick();
      }
    });
    m_bTicking = true;
  }

  void Tick() {
    ArmTick();
    ListenIfNot();
    m_handlers.fnTick();
  }

  void AcceptNext() {
    if (m_bAccepting || !m_bListening) {
      return;
    }
    m_acceptor.async_accept([this](const error_code& error, tcp::socket socket) {
      m_bAccepting = false;
      if (error && error != asio::error::connection_aborted) {
        // Out of descriptors, as a rule: trying again at once would only spin.
        m_acceptTimer.expires_after(kAcceptPause);
        m_acceptTimer.async_wait([this](const error_code&) {
          m_bAccepting = false;
          AcceptNext();
        });
        m_bAccepting = true;
        return;
      }
      AcceptNext();
      if (!error) {
        Admit(std::move(socket));
      }
    });
    m_bAccepting = true;
  }

  void Admit(tcp::socket socket) {
    if (m_listSessions.size() >= kMostConnections) {
      const std::shared_ptr<CStatusSession> pOldest = m_listSessions.front();
      pOldest->Close();
    }
    const auto itPlace = m_listSessions.insert(m_listSessions.end(), nullptr);
    try {
      *itPlace = std::make_shared<CStatusSession>(std::move(socket), m_handlers.requestTimeout, m_fnAnswer,
                                                  [this, itPlace] { m_listSessions.erase(itPlace); });
    } catch (...) {
      m_listSessions.erase(itPlace);
      throw;
    }
    (*itPlace)->Start();
  }

  const StatusOptions m_options;
  const StatusHandlers m_handlers;
  const CStatusSession::Answer m_fnAnswer;
  void* m_hLog = nullptr;
  asio::io_context m_ioContext{1};
  tcp::acceptor m_acceptor;
  bool m_bListening = false;
  // Whether a handler is waited for that goes on with it.
  bool m_bAccepting = false;
  bool m_bTicking = false;
  error_code m_lastFailure;
  asio::steady_timer m_acceptTimer;
  asio::steady_timer m_tickTimer;
  Sessions m_listSessions;  // after the I/O context, which their sockets need to the end
  std::atomic<bool> m_bTurnPosted = false;
  CLoop m_loop{"qmhost-status", [this] { PostTurn(); }};
  std::thread m_thread;
};

}  // namespace

std::unique_ptr<IStatusServer> CreateStatusServer(const StatusOptions& options, StatusHandlers handlers) {
  return std::make_unique<CStatusServer>(options, std::move(handlers));
}
