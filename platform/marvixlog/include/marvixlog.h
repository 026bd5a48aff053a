// The platform's log mask. Every component on the device consults the same global mask before it
// writes to syslog, so that one setting turns a level on or off everywhere at once.
#ifndef MARVIXLOG_H
#define MARVIXLOG_H

#include <stdint.h>

#define MARVIX_LOG_ERROR 0x2000000u   /* bit 25 */
#define MARVIX_LOG_WARNING 0x1000000u /* bit 24 */
#define MARVIX_LOG_INFO 0x800000u     /* bit 23 */
#define MARVIX_LOG_DEBUG 0x8000u      /* bit 15 */

#ifdef __cplusplus
extern "C" {
#endif

/* Read afresh before each message; errors, warnings and info are on by default. */
extern uint32_t g_marvix_log_mask;

#ifdef __cplusplus
}
#endif

#endif
