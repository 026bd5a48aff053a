/* The device property store: small named text values that the boot loader reads too.
 *
 * This stand-in keeps the properties as variables of a U-Boot environment, through libubootenv, so
 * that the boot loader and Debian's fw_printenv / fw_setenv see the same values. The environment is
 * described by a standard fw_env.config file: one line "device offset size" per copy. With two
 * lines (a redundant pair) each write goes to the older copy and the newer one stays intact, so a
 * write cut off half-way leaves the previous value readable.
 *
 * Configuration: brix_set_config(), else the environment variables BRIX_FW_ENV_CONFIG and
 * BRIX_INITIAL_ENV, else BRIX_DEFAULT_CONFIG and BRIX_DEFAULT_INITIAL_ENV.
 *
 * An environment in which no copy passes its CRC check is used only when it is a first boot:
 * at least one copy is blank (every byte 0x00 or every byte 0xFF). A redundant pair keeps a blank
 * copy only until its second complete write, so this also covers a first write that was cut off.
 * The store then starts from the initial environment file (if it exists, else an empty one).
 * When every copy is damaged, or a copy cannot be read at all, the environment is unreadable:
 * reads and writes fail with BRIX_ERR_UNREADABLE and nothing is ever written over it.
 *
 * Every function returns 0 on success and one of the statuses below otherwise. Access by several
 * processes is serialised by libubootenv's lock file, /var/lock/fw_printenv.lock.
 */
#ifndef BRIX_H
#define BRIX_H

#ifdef __cplusplus
extern "C" {
#endif

#define BRIX_OK 0
#define BRIX_ERR_NO_CONFIG 1  /* no configuration file, or none of its lines names a copy */
#define BRIX_ERR_UNREADABLE 2 /* the environment cannot be read (see above) */
#define BRIX_ERR_TOO_LONG 3   /* value longer than BRIX_VALUE_MAX, or than the caller's buffer */
#define BRIX_ERR_WRITE 4      /* the environment could not be written */
#define BRIX_ERR_KEY 5        /* no such property, or a name the store rejects ("" or with '=') */
#define BRIX_ERR_ARGUMENT 6   /* a null pointer or a buffer size below 1 */

/* The longest value the store accepts, in bytes. */
#define BRIX_VALUE_MAX 32

#define BRIX_DEFAULT_CONFIG "/etc/fw_env.config"
#define BRIX_DEFAULT_INITIAL_ENV "/etc/u-boot-initial-env"

/* Copies the value into buffer. A value of exactly size bytes fills it without a terminating NUL;
 * a shorter one is terminated; a longer one gives BRIX_ERR_TOO_LONG. */
int brix_get_property(const char* key, char* buffer, int size);

/* Stores the value. */
int brix_set_property(const char* key, const char* value);

/* Points the store at another fw_env.config and initial environment ("name=value" lines) for this
 * process. A null argument returns that setting to the environment variable or the default. */
void brix_set_config(const char* fw_env_config, const char* initial_env);

#ifdef __cplusplus
}
#endif

#endif
