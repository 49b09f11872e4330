#include "platform/log_channels.h"

CRelaxedAtomic<void*> g_hLog{nullptr};
CRelaxedAtomic<void*> g_hLogError{nullptr};
