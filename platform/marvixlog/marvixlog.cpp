#include "marvixlog.h"

// C linkage comes from the declaration in the header.
uint32_t g_marvix_log_mask = MARVIX_LOG_ERROR | MARVIX_LOG_WARNING | MARVIX_LOG_INFO;
