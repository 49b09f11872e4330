// The work of qmsend: keeps a window of records on their way to the host, and knows of each whether it was accepted.
//
// One thread, one loop. Input is read only as the window allows, so memory is bounded by the window whatever the input.
#ifndef QMLOGCACHE_TOOLS_QMSEND_SENDER_H_
#define QMLOGCACHE_TOOLS_QMSEND_SENDER_H_

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "plugin/compctx/guid.h"
#include "tools/qmsend/failure_report.h"
#include "tools/qmsend/host_connection.h"
#include "tools/qmsend/in_flight.h"
#include "tools/qmsend/input.h"
#include "tools/qmsend/interrupt.h"
#include "tools/qmsend/message_builder.h"
#include "tools/qmsend/options.h"
#include "tools/qmsend/summary_file.h"
#include "tools/qmsend/terminal.h"

class CSender {
 public:
  // The options must outlive the sender.
  explicit CSender(const SendOptions& options);

  // Sends everything; returns the exit code.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool Prepare();
  bool ConnectFirst();
  void Loop();
  void NoticeInterrupts(Clock::time_point now);
  void Reconnect(Clock::time_point now);
  void SendAgain(Clock::time_point now);
  void SendNew();
  void SendRecord(PendingRecord& record);
  bool HasSendRoom() const;
  void Exchange();
  void HandleAnswers(Clock::time_point now);
  void Refused(PendingRecord& record, uint32_t uStatus, Clock::time_point now);
  void ConnectionLost(const std::string& strWhy, Clock::time_point now);
  void GiveUp();
  void Fail(PendingRecord& record, CFailureReport::Cause cause, uint32_t uStatus);
  void Wait(Clock::time_point now);
  int Finish();
  void PrintSummary();
  bool WriteSummary();

  const SendOptions& m_options;
  CInterrupt m_interrupt;
  CTerminal m_terminal;
  CSummaryFile m_summary;
  CFailureReport m_report;
  CHostConnection m_connection;
  CMessageBuilder m_builder;
  GUID m_sender{};
  std::unique_ptr<CInput> m_pInput;
  std::unique_ptr<CInFlight> m_pInFlight;
  std::vector<IngressAnswer> m_vecAnswers;
  SendCounts m_counts;
  uint64_t m_u64Skipped = 0;
  Clock::time_point m_start;
  Clock::time_point m_lostAt{};  // while the connection is lost
  Clock::time_point m_nextConnect{};
  Clock::time_point m_stopBy{};  // once interrupted
  bool m_bInputEnded = false;
  bool m_bInputBlocked = false;  // the input must become readable first
  bool m_bInterrupted = false;
  bool m_bOver = false;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_SENDER_H_
