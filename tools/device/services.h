/* services.h - the device on the bus: its two services and the object through which people and tests control it. */
#pragma once

#include "device.h"

/* Connects to the session bus, exports the objects and takes both names at once; blocks for it. From then on calls
 * are answered as the main loop runs, and losing the bus ends the loop with EX_UNAVAILABLE.
 * False, with the reason on standard error, when there is no bus or a name is taken. `device` must outlive the loop. */
bool services_start(Device &device);

/* Leaves the bus. Also after a start that failed. */
void services_stop(Device &device);
