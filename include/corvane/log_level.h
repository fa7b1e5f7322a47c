/* The library's log verbosity, shared by every handle of the process.
 *
 * Lines go to the Android log with tag "Lumora" at debug priority. A line is
 * printed when the level is at least the line's threshold (-5 .. 3); the
 * default level is -4. Callable from any thread at any time; no lock. */
#ifndef CORVANE_LOG_LEVEL_H_
#define CORVANE_LOG_LEVEL_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the level to `level` unchanged: any int, no clamping. */
void x_smart_file_set_log_level(int level);

/* Returns the current level. */
int x_smart_file_get_log_level(void);

/* Sets the level to -1: thresholds 0 and above are silenced while the most
 * important lines (-5 .. -1) still print. */
void x_smart_file_disable_log(void);

#ifdef __cplusplus
}
#endif

#endif /* CORVANE_LOG_LEVEL_H_ */
