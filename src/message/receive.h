// Reception: checks an inbound message, unpacks it into a record, a result or a connect notice, and answers the sender.
//
// Stateless; called on the router's threads, several at a time, at any moment while the library is loaded. Nothing is
// thrown. A message that is not taken is answered with "fail" and its code, and logged.
#ifndef QMLOGCACHE_MESSAGE_RECEIVE_H_
#define QMLOGCACHE_MESSAGE_RECEIVE_H_

#include "plugin/compctx/component_context.h"

class CLogCacheReceive : public IMRReceiveComplete {
 public:
  void ReceiveCallback(const GUID& stComponentID, long i64MsgType, const unsigned char* pData,
                       unsigned int uiDataLength, void* pReplyHandle, void* pContext) override;

  // Priority code and record kind of a priority message type; false when there is no such type.
  static bool GetPrivAndMsgType(long long i64MsgType, int& iPriv, int& iMsgType);

  // Serves every registration.
  static CLogCacheReceive& m_gReceive;
};

#endif  // QMLOGCACHE_MESSAGE_RECEIVE_H_
