// Exported data that belongs to no single subsystem.

#include "ZuHelper.h"

uint32_t gOSVersion = 0;
void* sendQueue = nullptr;
