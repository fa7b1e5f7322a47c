/* The library's log verbosity, shared by every handle of the process.
 *
 * Lines go to the Android log (__android_log_print) with tag "Lumora" at
 * debug priority; on a Linux host liblog's logger decides where they go
 * (__android_log_set_logger(__android_log_stderr_logger) sends them to
 * stderr). A line is printed when the level is at least the line's
 * threshold (-5 .. 3); the default level is -4, which prints only the
 * most important lines. 0 shows every call of the interface, 1 what the
 * files and buffers do, 2 and 3 every read in detail (slow).
 *
 * The level file: the first open that succeeds in the process reads
 * "/data/vendor/3rd_rw/lumora/log_level", if it exists, as a decimal number
 * of at most two characters ("-1", "2"; "-12" reads as -1) and takes it as
 * the level, replacing one set before. Set the level after the first open
 * to be sure yours counts. ("/data/lumora/log_level" is opened when the
 * first file is missing, but never read.)
 *
 * Callable from any thread at any time; never blocks, takes no lock. */
#ifndef CORVANE_LOG_LEVEL_H_
#define CORVANE_LOG_LEVEL_H_

#ifdef __cplusplus
extern "C" {
#endif

/* Sets the level to `level` unchanged: any int, no clamping. */
void x_smart_file_set_log_level(int level);

/* Returns the current level (the default, the level file's, or the last
 * one set). */
int x_smart_file_get_log_level(void);

/* Sets the level to -1: thresholds 0 and above are silenced while the most
 * important lines (-5 .. -1) still print. */
void x_smart_file_disable_log(void);

#ifdef __cplusplus
}
#endif

#endif /* CORVANE_LOG_LEVEL_H_ */
