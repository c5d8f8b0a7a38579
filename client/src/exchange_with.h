/* exchange_with.h - blocking calls over sockets that never wait by themselves. */
#pragma once

#include "loop_core.h"
#include "sockets.h"

namespace kesto {

enum class Waited { ready, late, interrupted };

/* Until the descriptor is readable, until a time (now_ms), or until the caller wants no more. */
Waited wait_readable(int descriptor, int64_t until, const std::function<bool()> &stop);

Answer exchange_with(Requester &requester, const Request &request, const Patience &patience);

}  // namespace kesto
