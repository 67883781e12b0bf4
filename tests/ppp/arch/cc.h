/* What lwIP wants to know of its surroundings beyond its own defaults. */
#pragma once

#include <stdlib.h>

#define LWIP_RAND() ((u32_t)rand())
