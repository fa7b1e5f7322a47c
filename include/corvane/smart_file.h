/* libcorvane's public interface: file-like, random-access reading of
 * http(s) URLs and local files behind small integer handles.
 *
 * Open a location ("http://...", "https://..." or an absolute path "/...")
 * to get a handle (1..255), then read, seek and query it, and close it. Every
 * function may be called from any thread; do not close a handle while
 * another of your threads is inside a call on it. Integer results are the
 * SMFR_* codes below unless a function says otherwise. Texts returned by the
 * library are owned by it: do not free them. */
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

/* Called once per accepted asynchronous read on a library worker thread
 * (a cancel while queued reports on the cancelling thread and must not call
 * back into the library). */
typedef void (*x_smart_file_callback)(int reqID, void* userdata, int status, int bytes);

/* Opening and closing. A handle is given even when the location cannot be
 * opened; the failure shows on the first read, seek or size. */
int x_smart_file_open(const char* url, int* handle);                  /* 2 MiB buffer */
int x_smart_file_open_x(const char* url, int* handle, int buffersize);
int x_smart_file_close(int handle);

/* Reading and positioning. */
int x_smart_file_read(int handle, char* buf, int size, unsigned long* readSize);
int x_smart_file_read_async(int handle, char* buf, int size, x_smart_file_callback callback,
                            void* userdata, int* reqID);
int x_smart_file_read_abort(int handle, int reqID); /* reqID 0 breaks a blocked read */
int x_smart_file_seek(int handle, long long offset, long long* curOffset);
long long x_smart_file_offset(int handle);
long long x_smart_file_size(int handle); /* waits for the first data */
int x_smart_file_volatile(int handle);
int x_smart_file_bufferSize(int handle);
int x_smart_file_bufferedSize(int handle);
int x_smart_file_dump_buffer(void);

/* HTTP options and information; on other sources they answer as documented
 * per function (0 or -1, null for texts). */
int x_smart_file_set_featureflag(int handle, int flags);
long long x_smart_file_http_get_speed(int handle);
int x_smart_file_http_set_speed(int handle, long long speed);
char* x_smart_file_http_get_content_type(int handle); /* library-owned, never freed */
char* x_smart_file_http_get_server_name(int handle);  /* library-owned, never freed */
int x_smart_file_http_get_download_status(int handle);
int x_smart_file_http_get_url_ip(int handle, char* ip);
int x_smart_file_http_get_header(int handle, char* buf, int size, int* length);
int x_smart_file_http_set_userAgent(int handle, const char* text);
int x_smart_file_http_set_proxy(int handle, const char* text);
int x_smart_file_http_set_CAPath(int handle, const char* text);
int x_smart_file_http_set_CA(int handle, const char* text);
int x_smart_file_http_set_client_authert(int handle, const char* text);
int x_smart_file_http_set_private_key(int handle, const char* text);
int x_smart_file_http_set_key_type(int handle, const char* text);
int x_smart_file_http_set_ip_resolve(int handle, const char* text); /* "IPv4", "IPv6", "whatever" */
int x_smart_file_http_set_cookie(int handle, const char* text);

/* The text most recently returned by the two text getters above. */
extern char* server_str;

#ifdef __cplusplus
}
#endif

#endif /* CORVANE_SMART_FILE_H_ */
