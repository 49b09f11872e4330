#include "platform/log_channels.h"

std::atomic<void*> g_hLog{nullptr};
std::atomic<void*> g_hLogError{nullptr};
