/* libcorvane's public interface: file-like, random-access reading of
 * http(s) URLs and local files behind small integer handles.
 *
 * Open a location ("http://...", "https://..." or an absolute path "/...")
 * to get a handle (1..255), then read, seek and query it, and close it.
 * Link with -lcorvane (pkg-config corvane, or CMake find_package(corvane)
 * and the target corvane::corvane).
 *
 * Conventions of every function below:
 * - Integer results are the SMFR_* codes unless a function says otherwise.
 *   A handle outside 1..255, or one that is not open, gives SMFR_FAILED
 *   (-4), also from the functions returning a 64-bit value.
 * - Every function may be called from any thread. Calls on different
 *   handles run in parallel; a blocked read does not hold up opens and
 *   closes of other handles. Do not close a handle while another of your
 *   threads is inside a call on it: a call already under way is not waited
 *   for. A closed handle's number is given to the next open.
 * - Handles opened on the same location text share one buffer and one
 *   download; each handle keeps its own position, and their reads take
 *   turns.
 * - Texts returned by the library are owned by it: never free them.
 * - Nothing is thrown across this interface.
 * - What the library does is logged; see corvane/log_level.h. */
#ifndef CORVANE_SMART_FILE_H_
#define CORVANE_SMART_FILE_H_

#include "corvane/log_level.h"

#ifdef __cplusplus
extern "C" {
#endif

/* Result codes. An enum rather than macros, so the names stay usable as
 * member names inside the library. */
enum {
  SMFR_OK = 0,
  SMFR_NOT_HTTP = -1,      /* HTTP-only call on another source; also a finished stream */
  SMFR_FAILED = -4,        /* bad handle or argument, no free handle, failed read/seek */
  SMFR_TIMEOUT = -6,       /* read failed: the stream timed out */
  SMFR_BUSY = -12,         /* seek refused: too far on a stream not readable at random */
  SMFR_EOF = -13,          /* read stopped at the end of the content (bytes counted) */
  SMFR_NOT_AVAILABLE = -17, /* read failed: the server refuses service */
  SMFR_NOT_FOUND = -21     /* read failed: no such file */
};

/* Statuses of an asynchronous read's callback. */
enum {
  SMFR_ASYNC_FAILED = -1,   /* failed; bytes = count so far */
  SMFR_ASYNC_DONE = 1,      /* completed; bytes placed in the buffer */
  SMFR_ASYNC_CANCELLED = 3, /* cancelled (reported twice when withdrawn while queued) */
  SMFR_ASYNC_EOF = 4        /* completed at the end of the content */
};

/* The completion callback of x_smart_file_read_async: `reqID` and
 * `userdata` as given to the read, `status` one of SMFR_ASYNC_*, `bytes` the
 * number of bytes placed in the read's buffer (0 when cancelled while still
 * queued).
 *
 * It runs on one of the library's six worker threads, once per accepted
 * read, and may call the library from there; keep it short, it holds up
 * that worker. When a read is withdrawn before it ran (x_smart_file_read_abort
 * or the close of the last handle on the location) the status-3 reports run
 * on the thread that withdrew it, with the library's task queue locked:
 * such a report must not call back into the library. After the callback
 * returns, its request id may be given to another read. */
typedef void (*x_smart_file_callback)(int reqID, void* userdata, int status, int bytes);

/* ---- Opening and closing ---- */

/* Opens `url` with a 2 MiB buffer (64 blocks of 32 KiB) and writes the
 * handle (1..255, the lowest free one) to *handle.
 *
 * `url` must begin with "http://" or "https://" (any case) or "/" (a local
 * path). Returns SMFR_OK; SMFR_FAILED for a null argument, another kind of
 * location (nothing written to *handle), or when all 255 handles are open
 * (*handle = -1).
 *
 * A handle is given even when the location cannot be opened: the failure
 * shows on the first read, seek or size. Does not wait for the network when
 * the location is new; when it is already open on another handle the new
 * handle shares it, and the open waits until that location has delivered
 * its first data (or failed). */
int x_smart_file_open(const char* url, int* handle);

/* As x_smart_file_open, with a buffer of `buffersize` bytes, rounded down to
 * whole 32 KiB blocks (at least two blocks are used, also for 0 or a
 * negative value). A buffer beyond 256 MiB is refused: the handle is still
 * given, and its reads, seeks and size fail with SMFR_FAILED. When the location is already open on another handle, that
 * handle's buffer is shared and `buffersize` is ignored. */
int x_smart_file_open_x(const char* url, int* handle, int buffersize);

/* Closes `handle`: breaks a read of this handle that is blocked at that
 * moment, and when it was the last handle on its location, withdraws that
 * location's queued asynchronous reads (each reported once with status 3
 * on this thread), stops the download and frees the buffer. Blocks until
 * that is done. SMFR_OK, or SMFR_FAILED when the handle is not open. */
int x_smart_file_close(int handle);

/* ---- Reading and positioning ---- */

/* Reads up to `size` bytes at the handle's position into `buf`, writes the
 * count to *readSize and advances the position by it.
 *
 * Blocks until `size` bytes are there, the end of the content is reached,
 * the stream has failed (after the library's own reconnections), or the
 * read is broken from another thread (x_smart_file_close, or
 * x_smart_file_read_abort with reqID 0). The first read of a location
 * starts its download.
 *
 * Returns SMFR_OK (also for the last, shorter piece of the content),
 * SMFR_EOF when the position was already at the end (bytes counted as
 * usual), SMFR_FAILED for a bad handle, null pointer, negative size, broken
 * read or a position the buffer cannot move to, SMFR_NOT_HTTP (-1) once the stream
 * has finished for good, or the stream's final failure: SMFR_TIMEOUT,
 * SMFR_NOT_AVAILABLE or SMFR_NOT_FOUND. */
int x_smart_file_read(int handle, char* buf, int size, unsigned long* readSize);

/* Starts a read of up to `size` bytes at the handle's position as it is
 * now; it runs on a library worker like x_smart_file_read and ends with one
 * call of `callback` (see x_smart_file_callback). `buf` must stay valid
 * until then; `callback` must not be null. Writes the request id (1..511)
 * to *reqID.
 *
 * Does not block. The handle's position moves by the bytes read when the
 * read completes, unless a seek moved it in the meantime; so a second read
 * made before the first completed reads the same bytes again: make the
 * next read from the callback, or seek first. Reads of one location run one
 * at a time, in no promised order.
 *
 * SMFR_OK when accepted; SMFR_FAILED for a bad handle, null pointer,
 * negative size, a handle whose open failed, or when 511 reads are outstanding. */
int x_smart_file_read_async(int handle, char* buf, int size, x_smart_file_callback callback,
                            void* userdata, int* reqID);

/* Cancels the asynchronous read `reqID` of this handle. A read still queued
 * is withdrawn and reported twice with status 3 (bytes 0), both reports on
 * this thread before the call returns; a read already running is broken and
 * reported once with status 3 on its worker. An id that is not in use (the
 * read already ended) is ignored.
 *
 * reqID 0 breaks this handle's read (synchronous or asynchronous) that is
 * blocked at that moment; the read then fails.
 *
 * SMFR_OK; SMFR_NOT_HTTP (-1) for an id outside 0..511; SMFR_FAILED for a
 * bad handle. */
int x_smart_file_read_abort(int handle, int reqID); /* reqID 0 breaks a blocked read */

/* Moves the handle's position to `offset` and writes the new position to
 * *curOffset. Waits for the location's first data (to know its size).
 *
 * A target beyond the end is clamped to the size. On a stream that can be
 * read at random any target is allowed; nothing is fetched until the next
 * read. On a stream that can only be read from its start onwards (no byte
 * ranges), a seek forward by at most 1 MiB (1,048,576 bytes), or backward to
 * an offset of at most 1 MiB, is allowed; any other is refused with
 * SMFR_BUSY (-12): the position stays as it was while *curOffset already
 * holds the (clamped) target.
 *
 * SMFR_OK; SMFR_BUSY as above; SMFR_FAILED for a bad handle, null
 * curOffset, a negative offset (the position stays), a handle whose open
 * failed, or a size of 0. */
int x_smart_file_seek(int handle, long long offset, long long* curOffset);

/* The handle's position (the offset of its next read); does not block.
 * SMFR_FAILED for a bad handle. */
long long x_smart_file_offset(int handle);

/* The content size in bytes. Blocks until the location has delivered its
 * first data or failed. A server that gives no size reports
 * 0x0FFFFFFFFFFFFFFF (a live stream). SMFR_FAILED for a bad handle or a
 * handle whose open failed; 0 when the first data never came. */
long long x_smart_file_size(int handle); /* waits for the first data */

/* Marks the content as changing while it is read (a live source). Only
 * recorded for now: reading works as before. SMFR_OK, or SMFR_FAILED for a
 * bad handle. Waits while a read of the location is running. */
int x_smart_file_volatile(int handle);

/* The buffer size in bytes (the size asked for at open, rounded down to
 * whole 32 KiB blocks). SMFR_FAILED for a bad handle or a handle whose open
 * failed. Does not block. */
int x_smart_file_bufferSize(int handle);

/* The bytes held in the buffer from the handle's position onwards without a
 * gap, i.e. what the next reads get without waiting. 0 when the position is
 * not buffered; SMFR_FAILED as for x_smart_file_bufferSize. Does not block. */
int x_smart_file_bufferedSize(int handle);

/* Prints the state of every open buffer to the log when the log level is 3
 * or more; does nothing otherwise. Always SMFR_OK. */
int x_smart_file_dump_buffer(void);

/* ---- HTTP options and information ----
 *
 * These act on the handle's HTTP(S) download. On a local file they answer as
 * documented per function (0, -1, or null for texts). Options take effect at
 * the next request the library sends for the location (a new connection,
 * also after a far seek or a reconnection), so set them right after open,
 * before the first read or size. Handles sharing a location share its
 * options. None of them blocks on the network. */

/* Feature flag: 1 selects the short timings used for one broadcaster's
 * streams (6 s to connect instead of 10 s, a transfer is given up after 4 s
 * without data instead of 35 s) and its handling of failed name look-ups
 * and silent servers (retried instead of ending the stream as not found). Any other value, and the
 * default -1, keep the usual behaviour. SMFR_OK, also on a local file;
 * SMFR_FAILED for a bad handle. */
int x_smart_file_set_featureflag(int handle, int flags);

/* The download speed in bytes per second: a smoothed figure while data
 * flows, else the mean since the transfer began. 0 on a local file;
 * SMFR_FAILED for a bad handle. */
long long x_smart_file_http_get_speed(int handle);

/* Limits the download to `speed` bytes per second, from the next chunk on;
 * 0 removes the limit. SMFR_OK (also on a local file), SMFR_FAILED for a
 * bad handle. */
int x_smart_file_http_set_speed(int handle, long long speed);

/* The Content-Type of the last response ("" before one came), as a new
 * zero-terminated copy. The text is the library's and is never freed, by
 * the library or by you: every call makes a new copy that stays valid for
 * the life of the process (a small leak per call, kept on purpose so that
 * earlier pointers never dangle; do not call it in a tight loop). The
 * pointer is also stored in server_str. Null on a local file, a bad handle
 * or no memory. */
char* x_smart_file_http_get_content_type(int handle); /* library-owned, never freed */

/* The value of the Server header of the last response ("" when none), with
 * the same ownership as x_smart_file_http_get_content_type: a new copy per
 * call, never freed, also stored in server_str. It is logged under the
 * line "Content type:%s". Null on a local file or a bad handle. */
char* x_smart_file_http_get_server_name(int handle);  /* library-owned, never freed */

/* Why the download failed: 0 while nothing failed, an HTTP status of 400 or
 * more that the server answered, or one of -2 (timed out), -3 (no data
 * received), -5 (disconnected), -6 (host name not resolved), -7 (connect
 * failed), -8 (connection refused). SMFR_FAILED on a local file or a bad
 * handle. */
int x_smart_file_http_get_download_status(int handle);

/* Writes the address the download connected to, as zero-terminated text
 * ("" before the first connection), into `ip`: the text and its terminator
 * only, so 16 bytes hold an IPv4 address and 46 (INET6_ADDRSTRLEN) any
 * address. SMFR_OK; SMFR_NOT_HTTP (-1) on a local file or
 * for a null `ip`; SMFR_FAILED for a bad handle. */
int x_smart_file_http_get_url_ip(int handle, char* ip);

/* Copies the raw header block of the last response (status line and
 * headers, at most 8192 bytes, not zero-terminated) into `buf`, at most
 * `size` bytes, and writes the block's full length to *length (when not
 * null). A null `buf` or a size of 0 or less copies nothing, so a first call
 * can ask for the length. SMFR_OK, also on a local file (nothing written);
 * SMFR_FAILED for a bad handle. */
int x_smart_file_http_get_header(int handle, char* buf, int size, int* length);

/* The text options. Each copies `text`, so it may be freed after the call.
 * An empty text keeps the current setting. They return SMFR_OK once set,
 * SMFR_NOT_HTTP (-1) on a local file, and SMFR_FAILED for a bad handle. A
 * null text gives SMFR_NOT_HTTP for user agent, proxy, CA path, CA file and
 * cookie, and SMFR_FAILED (logged "NULL POINT") for the other four. */

/* The User-Agent header (the default is "curl/7.19.5"). */
int x_smart_file_http_set_userAgent(int handle, const char* text);
/* A proxy as libcurl takes it, e.g. "http://proxy:3128"; 127.0.0.1 is always
 * reached directly. */
int x_smart_file_http_set_proxy(int handle, const char* text);
/* A directory of CA certificates, and a CA bundle file, handed to libcurl.
 * Note that the library does not verify servers' certificates or host
 * names (both checks are off). */
int x_smart_file_http_set_CAPath(int handle, const char* text);
int x_smart_file_http_set_CA(int handle, const char* text);
/* The client certificate file, its private key file and the key's type
 * ("PEM", "DER" or "ENG") for servers that ask for one. */
int x_smart_file_http_set_client_authert(int handle, const char* text);
int x_smart_file_http_set_private_key(int handle, const char* text);
int x_smart_file_http_set_key_type(int handle, const char* text);
/* Which addresses a host name may resolve to: "IPv4" (the default), "IPv6"
 * or "whatever"; any other text is logged and ignored (still SMFR_OK). */
int x_smart_file_http_set_ip_resolve(int handle, const char* text); /* "IPv4", "IPv6", "whatever" */
/* Cookies sent with every request, as a Cookie header's value
 * ("name=value; name2=value2"). */
int x_smart_file_http_set_cookie(int handle, const char* text);

/* The text most recently returned by the two text getters above. */
extern char* server_str;

#ifdef __cplusplus
}
#endif

#endif /* CORVANE_SMART_FILE_H_ */
