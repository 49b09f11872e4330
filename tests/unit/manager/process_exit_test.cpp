// Callbacks while the process is on its way out: static objects may be gone by then, the callback objects must not be.
#include <gtest/gtest.h>

#include <cstdlib>

#include "message/receive.h"
#include "message/send_completion.h"

namespace {

bool g_bDeliverAtExit = false;

// The host's call goes through the interface, as a router's does.
void DeliverLate() {
  if (!g_bDeliverAtExit) {
    return;
  }
  const GUID sender{};
  const unsigned char abData[] = {'x'};
  IMRReceiveComplete* volatile pReceiver = &CLogCacheReceive::m_gReceive;
  pReceiver->ReceiveCallback(sender, 10100, abData, 1, nullptr, nullptr);
  IMRSendComplete* volatile pCompletion = &CLogCacheSend::m_LogCacheSend;
  pCompletion->SendCallback(1, 20002, nullptr, 0, 1, &g_bDeliverAtExit);
}

// Registered before the component's own static objects are made, so that it runs after they are destroyed.
__attribute__((constructor(101))) void RegisterFirst() {
  atexit(DeliverLate);
}

TEST(ProcessExitDeathTest, CallbacksAreTakenAfterStaticDestruction) {
  EXPECT_EXIT(
      {
        g_bDeliverAtExit = true;
        exit(0);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
