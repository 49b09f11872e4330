// The component without its two threads: the caller takes their steps, so that everything a record goes through happens
// on one thread, in one order, each time the same. The clock stands still.
//
// One life at a time. Throws std::runtime_error where the component does not do what it is asked to.
#ifndef QMLOGCACHE_BENCH_INSTRUCTIONS_SINGLE_THREAD_COMPONENT_H_
#define QMLOGCACHE_BENCH_INSTRUCTIONS_SINGLE_THREAD_COMPONENT_H_

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "bench/support/idle_context.h"
#include "tests/support/peers.h"

// A record of the size that the other benchmarks take.
inline constexpr size_t kPayloadSize = 400;
inline constexpr GUID kSender = {0x3C5E7A91, 0x4A6B, 0x4C8D, {0x8E, 0x2F, 0x10, 0x32, 0x54, 0x76, 0x98, 0xBA}};

// Takes every send at once and keeps its data id.
class CSendRecorder : public CIdleContext {
 public:
  const std::vector<uint64_t>& Sent() const { return m_vecSent; }
  void Forget() { m_vecSent.clear(); }

  uint32_t Reply(int32_t iRet, int64_t i64MsgType, const char* pReply, uint32_t uLength, void* pReplyHandle) override;
  uint32_t AsynSendEx(const GUID* pDest, uint32_t uMsgType, const uint8_t* pData, uint32_t uLength,
                      IMRSendComplete* pComplete, uint64_t u64UserValue, uint64_t* pu64Act,
                      uint32_t uTimeoutMs) override;

 private:
  std::vector<uint64_t> m_vecSent;
};

class CSingleThreadComponent {
 public:
  explicit CSingleThreadComponent(IComponentContext& context);
  ~CSingleThreadComponent();
  CSingleThreadComponent(const CSingleThreadComponent&) = delete;
  CSingleThreadComponent& operator=(const CSingleThreadComponent&) = delete;

  // Hands in one record of kPayloadSize bytes, as the router does.
  void TakeRecord();
  // One turn of the work thread, with a record queued: sends it. At most 128 may be unsettled.
  void SendRecord();
  // Hands in the result "delivered" for a record.
  void Settle(uint64_t u64DataId);
  // What a stop writes and what a start reads.
  void Save();
  void Load();
  size_t Held();

 private:
  IComponentContext& m_context;
  CLogCacheMgrPeer m_manager;
  CLogCacheMgrPeer::WorkState m_workState;
  const std::string m_strPayload;
};

#endif  // QMLOGCACHE_BENCH_INSTRUCTIONS_SINGLE_THREAD_COMPONENT_H_
