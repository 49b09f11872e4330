// Send completion: the transport's word on one send. Success only tells that the message was handed over; the record's
// result comes as a message of its own. A failure is the record's result.
//
// Stateless; called on a router thread at any moment while the library is loaded, also before the send has returned.
#ifndef QMLOGCACHE_MESSAGE_SEND_COMPLETION_H_
#define QMLOGCACHE_MESSAGE_SEND_COMPLETION_H_

#include "plugin/compctx/component_context.h"

class CLogCacheSend : public IMRSendComplete {
 public:
  // pContext carries the record's data id.
  void SendCallback(int iRetReply, long i64MsgType, const unsigned char* pReply, unsigned int uiLength,
                    unsigned long ui64ACT, void* pContext) override;

  // Serves every send.
  static CLogCacheSend& m_LogCacheSend;
};

#endif  // QMLOGCACHE_MESSAGE_SEND_COMPLETION_H_
