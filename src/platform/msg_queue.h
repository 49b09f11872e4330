// Thread-safe first-in-first-out queue of pointers.
//
// A QmMsgQueue is held by value between QmMsgQueueInit and QmMsgQueueFini and is neither copied nor moved in between.
// It never looks at the items: they are forgotten, not freed, by QmMsgQueueFini.
#ifndef QMLOGCACHE_PLATFORM_MSG_QUEUE_H_
#define QMLOGCACHE_PLATFORM_MSG_QUEUE_H_

struct QmMsgQueue {
  alignas(16) unsigned char abOpaque[128];
};

struct QmMsg {
  unsigned long ulFirst;
  unsigned long ulSecond;
  void* pItem;
  unsigned long ulReserved;
};

extern "C" {
// 0 for success, non-zero when memory is short.
int QmMsgQueueInit(QmMsgQueue* pQueue);
int QmMsgQueueFini(QmMsgQueue* pQueue);
// 0 for success; non-zero (nothing inserted) when memory is short.
int QmMsgQueueInsert(QmMsgQueue* pQueue, unsigned long ulFirst, unsigned long ulSecond, void* pItem);
// 0 when a message was taken; non-zero when none came within dwWaitMs milliseconds (0: look once, do not wait).
int QmGetMsgFromQueue(QmMsgQueue* pQueue, QmMsg* pMsg, unsigned int dwWaitMs);
// Number of messages at this moment.
unsigned long QmGetMsgCount(QmMsgQueue* pQueue);
}

#endif  // QMLOGCACHE_PLATFORM_MSG_QUEUE_H_
