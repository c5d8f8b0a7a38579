/* tour.h - one client's whole visit to a device, as numbered steps that a newcomer can follow. */
#pragma once

#include "options.h"

/* Stops at the first step that fails and throws its Failure. Values are put back and ids logged out in either case. */
int run_tour(const Options &options);
