#include "net/server.h"
#include "net/shutdown.h"

void *kesto_access_net_start(void *) { return nullptr; }

void kesto_access_net_stop(KestoProcess *) { kesto_mainloop_stop(); }
