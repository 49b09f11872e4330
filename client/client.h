// One client of the C interface: an engine, and a descriptor that says when it has something to do.
#ifndef QMLOGCACHE_CLIENT_CLIENT_H_
#define QMLOGCACHE_CLIENT_CLIENT_H_

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "client/core/send_engine.h"
#include "client/qmclient.h"
#include "client/wake_descriptor.h"

// Functions that are not noexcept throw std::bad_alloc; the client is of use after that, and no record is forgotten.
struct qm_client final : private ISendEvents {
 public:
  using Clock = std::chrono::steady_clock;

  // The options have been checked.
  explicit qm_client(const qm_client_options& options);
  qm_client(const qm_client&) = delete;
  qm_client& operator=(const qm_client&) = delete;

  // Once, before anything else. False: no descriptor.
  [[nodiscard]] bool Open() { return m_wake.Open(); }
  // Has the descriptor say what the engine waits for; at the end of whatever changes that.
  void Arm();

  // The functions of the C interface, with values of qm_client_error; a negative time waits without end.
  int Send(const qm_client_record& record, int iTimeoutMs);
  int Process(int iTimeoutMs);
  int Flush(int iTimeoutMs);
  // Reports what is left.
  void GiveUp() { m_engine.GiveUp(); }
  int Descriptor() const noexcept { return m_wake.Descriptor(); }
  size_t Pending() const noexcept { return m_uPending; }

  // QM_CLIENT_OK when the caller may use the client, and has to call Leave.
  int Enter() noexcept;
  void Leave() noexcept { m_bInside.clear(std::memory_order_release); }
  bool IsForked() const noexcept;

 private:
  using Deadline = std::optional<Clock::time_point>;

  static Deadline After(int iTimeoutMs);
  void Turn();
  // False when the time is over.
  bool WaitAndTurn(const Deadline& until);
  int Build(const qm_client_record& record);
  void Report(const PendingRecord& record, qm_client_outcome outcome, uint32_t uStatus);
  void ReportConnection(bool bConnected, const std::string& strWhy);

  void Accepted(const PendingRecord& record) override;
  void Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) override;
  void Refused(uint32_t) override {}
  void Connected() override { ReportConnection(true, {}); }
  void Disconnected(const std::string& strWhy) override { ReportConnection(false, strWhy); }
  void CannotConnect(const std::string& strWhy) override { ReportConnection(false, strWhy); }
  void Closing(int iSocket) override { m_wake.Forget(iSocket); }

  const pid_t m_iProcess;
  const qm_client_result_fn m_fnResult;
  const qm_client_connection_fn m_fnConnection;
  void* const m_pUser;
  std::atomic_flag m_bInside;
  CWakeDescriptor m_wake;
  int m_iReported = 0;  // since a call began
  size_t m_uPending = 0;
  bool m_bAnswersLost = false;  // for want of memory
  uint32_t m_uType = 0;         // of the record that is being handed in
  std::string m_strPayload;
  CSendEngine m_engine;
};

#endif  // QMLOGCACHE_CLIENT_CLIENT_H_
