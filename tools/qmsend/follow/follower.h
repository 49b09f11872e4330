// qmsend --follow: sends a log's lines as they are appended, and notes how far everything is settled.
//
// One thread, one loop around a CSendEngine. No more lines are sent beyond the noted position than the host's window, so
// that is how many may come twice after a crash. A line is passed over only when it can never be sent; everything else is
// waited for, and nothing is read meanwhile.
#ifndef QMLOGCACHE_TOOLS_QMSEND_FOLLOW_FOLLOWER_H_
#define QMLOGCACHE_TOOLS_QMSEND_FOLLOW_FOLLOWER_H_

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "client/core/message_builder.h"
#include "client/core/send_engine.h"
#include "tools/qmsend/failure_report.h"
#include "tools/qmsend/follow/log_tail.h"
#include "tools/qmsend/follow/position_file.h"
#include "tools/qmsend/follow/unsettled_lines.h"
#include "tools/qmsend/interrupt.h"
#include "tools/qmsend/options.h"
#include "tools/qmsend/terminal.h"

class CFollower : private ISendEvents {
 public:
  // The options must outlive the follower.
  explicit CFollower(const SendOptions& options);

  // Follows until a signal; returns the exit code.
  int Run();

 private:
  using Clock = std::chrono::steady_clock;

  bool Prepare();
  void Loop();
  // False when it is time to end.
  bool GoesOn(Clock::time_point now);
  bool TakeLimits();
  void FindLog(Clock::time_point now);
  void SendLines(Clock::time_point now);
  void SendLine(const Record& line, LogPlace end);
  void PassOver(CFailureReport::Cause cause, uint32_t uStatus, uint64_t u64End, std::string_view svHead, bool bMore);
  void TellUnnamed();
  bool MaySend() const;
  bool Note();
  void NoteIfDue(Clock::time_point now);
  void Wait(Clock::time_point now);
  int Finish();

  void Accepted(const PendingRecord& record) override;
  void Failed(const PendingRecord& record, SendFailure failure, uint32_t uStatus) override;
  void Refused(uint32_t uStatus) override;
  void Connected() override;
  void Disconnected(const std::string& strWhy) override;
  void CannotConnect(const std::string& strWhy) override;
  void Closing(int) override {}

  const SendOptions& m_options;
  CInterrupt m_interrupt;
  CTerminal m_terminal;
  CPositionFile m_position;
  CMessageBuilder m_builder;
  std::unique_ptr<CSendEngine> m_pEngine;
  std::unique_ptr<CLogTail> m_pTail;
  CUnsettledLines m_lines;
  FollowPosition m_noted;  // what stands in the position's file, as far as is known
  size_t m_uWindow = 0;    // 0 until a host has told one
  uint64_t m_u64Accepted = 0;
  uint64_t m_u64PassedOver = 0;
  unsigned int m_uNamed = 0;         // of these, in the present minute
  uint64_t m_u64Unnamed = 0;         // since that was last told
  Clock::time_point m_nextNaming{};  // the minute's end
  Clock::time_point m_nextRead{};    // while there is nothing more in the log
  Clock::time_point m_nextNote{};
  Clock::time_point m_nextRefusal{};  // when refusals are told of again
  Clock::time_point m_stopBy{};       // once interrupted
  bool m_bInterrupted = false;
  bool m_bNoRoomForARecord = false;  // in the host's longest frame
  bool m_bToldAway = false;
  bool m_bToldUnnoted = false;
};

#endif  // QMLOGCACHE_TOOLS_QMSEND_FOLLOW_FOLLOWER_H_
