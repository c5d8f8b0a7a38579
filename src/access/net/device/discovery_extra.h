/* discovery_extra.h - which options the hardware has, as discovery says it. Network thread only. */
#pragma once

/* For example "4221=ON". Computed from the environment at the first call, then fixed; lives as long as the process. */
const char *discovery_extra();
