// The answers of one connection on their way from the components to the socket.
//
// The router keeps a reference for as long as an answer is due, so the box outlives its connection; what comes after
// Close is dropped. Answers given during the connection's own turn are only collected; one given at another time wakes
// the connection, once for all answers until it takes them.
#ifndef QMLOGCACHE_HOST_INGRESS_ANSWER_BOX_H_
#define QMLOGCACHE_HOST_INGRESS_ANSWER_BOX_H_

#include <cstddef>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <string_view>

#include "host/protocol/ingress_protocol.h"
#include "host/router/router.h"

// Longer answer texts are cut.
inline constexpr size_t kMaxAnswerText = 4096;

class CAnswerBox : public IReplySink {
 public:
  enum class Admission { Taken, WindowFull, OutputFull };

  // fnWake asks for a TakeOutput later. It is called under the box's lock and must not call back.
  CAnswerBox(uint32_t uWindow, size_t uMaxOutput, std::function<void()> fnWake);

  void OnReply(uint64_t u64Cookie, uint32_t uStatus, std::string_view svText) override;

  // Counts one more message as unanswered, unless the window is used up or more than uMaxOutput bytes wait to be taken.
  Admission Admit();
  // Frames that answer no message: the welcome, or the failure after which nothing more is taken into the box.
  void AddWelcome(const IngressWelcome& welcome);
  void AddFailure(IngressFailure failure, std::string_view svText);

  // Until the next TakeOutput that finds nothing, no answer wakes the connection: it comes to take them by itself.
  void HoldWakes();
  // Moves what there is into strOut (which must be empty; its storage is used again). bIdle: nothing is left and no
  // message is unanswered. False when there was nothing.
  bool TakeOutput(std::string& strOut, bool& bIdle);
  // An answer could not be kept for want of memory: the connection can no longer be served.
  bool IsBroken() const;
  // Drops everything; the wake function is never called again.
  void Close();

 private:
  void WakeLocked();

  const uint32_t m_uWindow;
  const size_t m_uMaxOutput;
  mutable std::mutex m_mutex;      // guards everything below
  std::function<void()> m_fnWake;  // null once closed
  std::string m_strOutput;
  uint32_t m_uUnanswered = 0;
  bool m_bTakerComes = false;
  bool m_bSealed = false;  // a failure frame is the last one
  bool m_bBroken = false;
};

#endif  // QMLOGCACHE_HOST_INGRESS_ANSWER_BOX_H_
