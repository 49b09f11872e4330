// The work of qmsend: keeps a window of records on their way to the host, and knows of each whether it was accepted.
//
// One thread, one loop around a CSendEngine. Input is read only as the window allows, so memory is bounded by the window
// whatever the input.
#ifndef QMLOGCACHE_TOOLS_QMSEND_SENDER_H_
#define QMLOGCACHE_TOOLS_QMSEND_SENDER_H_

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "client/core/message_builder.h"
#include "client/core/send_engine.h"
#include "tools/qmsend/failure_report.h"
#include "tools/qmsend/input.h"
#include "tools/qmsend/interrupt.h"
#include "tools/qmsend/json_record.h"
#include "tools/qmsend/options.h"
#include "tools/qmsend/summary_file.h"
#include "tools/qmsend/terminal.h"

class CSender : private ISendEvents {
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
  void SendNew();
  void SendRecord(const Record& record);
  void Wait(Clock::time_point now, bool bInput);
  int Finish();
  void PrintSummary();
  bool WriteSummary();

  void Accepted(const PendingRecord& record) override;
  void Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) override;
  void Refused(uint32_t) override {}
  void Connected() override;
  void Disconnected(const std::string& strWhy) override;
  void CannotConnect(const std::string& strWhy) override { m_strNoHost = strWhy; }
  void Closing(int) override {}

  const SendOptions& m_options;
  CInterrupt m_interrupt;
  CTerminal m_terminal;
  CSummaryFile m_summary;
  CFailureReport m_report;
  CMessageBuilder m_builder;
  JsonRecord m_jsonRecord;
  std::unique_ptr<CInput> m_pInput;
  std::unique_ptr<CSendEngine> m_pEngine;
  SendCounts m_counts;
  uint64_t m_u64Skipped = 0;
  Clock::time_point m_start;
  Clock::time_point m_stopBy{};  // once interrupted
  bool m_bInputEnded = false;
  bool m_bInputBlocked = false;  // the input must become readable first
  bool m_bInterrupted = false;
  std::string m_strNoHost;  // why the last attempt to connect failed
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_SENDER_H_
