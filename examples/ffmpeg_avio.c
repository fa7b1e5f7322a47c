/* corvane-probe: FFmpeg reading through libcorvane.
 *
 * Shows how a player plugs the library under FFmpeg's demuxers: a custom
 * AVIOContext whose read, seek and size calls go to x_smart_file_read,
 * x_smart_file_seek and x_smart_file_size, with the library's result codes
 * turned into FFmpeg's error codes. The command opens a location through it
 * and prints the container, the streams and the duration; with --packets it
 * demuxes every packet and prints one line per packet with an MD5 of its
 * data, in the same terms as `ffprobe -show_packets -show_data_hash MD5`, so
 * the two can be compared. --direct opens the location with FFmpeg's own
 * protocols instead, as a reference. --threads N demuxes the location on N
 * threads at once, each through its own handle (they share the library's
 * buffer of that location), and prints each thread's listing in turn. */
#include <errno.h>
#include <inttypes.h>
#include <pthread.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <strings.h>

#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/avutil.h>
#include <libavutil/hash.h>
#include <libavutil/pixdesc.h>

#include "corvane/smart_file.h"

#define IO_BUFFER_SIZE 65536
#define MAX_THREADS 8

static const char kUsage[] =
    "usage: corvane-probe [options] LOCATION\n"
    "  LOCATION       http://..., https://... or an absolute path\n"
    "  --packets      demux every packet: stream index, pts, dts, size, MD5 of the data\n"
    "  --direct       open with FFmpeg's own protocols instead of the library\n"
    "  --threads N    demux on N threads at once, one handle each (1..8)\n"
    "  --buffer BYTES library buffer size (x_smart_file_open_x)\n"
    "  --log-level N  library log level\n"
    "  --verbose      FFmpeg's own messages down to its info level\n"
    "  --trace        print every seek and every read that ends short to stderr\n";

typedef struct Options {
  const char* location;
  int packets;
  int direct;
  int threads;
  int trace;
  long long buffer;
} Options;

/* One library handle seen from FFmpeg. Only the demuxing thread that owns
 * the AVIOContext touches it. */
typedef struct CorvaneIo {
  int handle;
  long long size; /* > 0 once known */
  int lastCode;   /* last failing library code, for the error message */
  const char* lastCall;
  int trace;      /* print every seek and failed read to stderr */
  int seekable;   /* the source can be read at random */
  int refusedBack; /* a backward seek was refused (not seekable) */
} CorvaneIo;

/* One demuxing run: its options, where its listing goes and how it ended. */
typedef struct ProbeRun {
  const Options* options;
  FILE* out;
  char* text; /* listing when written to memory */
  size_t textSize;
  char error[512];
  int failed;
} ProbeRun;

static const char* codeInWords(int code) {
  switch (code) {
    case SMFR_OK: return "ok";
    case SMFR_NOT_HTTP: return "stream already finished";
    case SMFR_FAILED: return "failed";
    case SMFR_TIMEOUT: return "time-out";
    case SMFR_BUSY: return "seek too far on a stream that cannot be read at random";
    case SMFR_EOF: return "end of content";
    case SMFR_NOT_AVAILABLE: return "server refuses service";
    case SMFR_NOT_FOUND: return "not found";
    default: return "unknown code";
  }
}

static long long knownSize(CorvaneIo* io) {
  if (io->size <= 0) {
    long long size = x_smart_file_size(io->handle);
    if (size > 0) io->size = size;
  }
  return io->size;
}

/* FFmpeg's error for a library call that did not succeed; failures are
 * remembered for the error message. A refusal of service maps to
 * ECONNREFUSED, FFmpeg having no code of its own for it. */
static int toAvError(CorvaneIo* io, int code, const char* call) {
  if (code == SMFR_EOF) return AVERROR_EOF;
  io->lastCode = code;
  io->lastCall = call;
  switch (code) {
    case SMFR_NOT_FOUND: return AVERROR(ENOENT);
    case SMFR_NOT_AVAILABLE: return AVERROR(ECONNREFUSED);
    case SMFR_BUSY: return AVERROR(ESPIPE);
    case SMFR_NOT_HTTP: {
      /* The library answers -1 to a read on a finished stream. At the end of
       * a known size that is the end; short of it the stream broke off, and
       * calling that the end would hand the demuxer a silently cut file. */
      long long size = knownSize(io);
      if (size <= 0 || x_smart_file_offset(io->handle) >= size) {
        io->lastCode = SMFR_OK;
        return AVERROR_EOF;
      }
      return AVERROR(EIO);
    }
    case SMFR_TIMEOUT:
    case SMFR_FAILED:
    default: return AVERROR(EIO);
  }
}

static int readPacket(void* opaque, uint8_t* buf, int bufSize) {
  CorvaneIo* io = (CorvaneIo*)opaque;
  unsigned long got = 0;
  int code = x_smart_file_read(io->handle, (char*)buf, bufSize, &got);
  /* Bytes read before an end or a failure are delivered first; the next
   * call reports what stopped the read. */
  if (got > 0) return (int)got;
  if (io->trace) {
    fprintf(stderr, "trace: read %d at %lld: %s (%d)\n", bufSize, x_smart_file_offset(io->handle),
            codeInWords(code), code);
  }
  if (code == SMFR_OK) return AVERROR_EOF;
  return toAvError(io, code, "read");
}

static int64_t seekTo(void* opaque, int64_t offset, int whence) {
  CorvaneIo* io = (CorvaneIo*)opaque;
  whence &= ~AVSEEK_FORCE;
  if (whence == AVSEEK_SIZE) {
    long long size = knownSize(io);
    return size > 0 ? size : AVERROR(ENOSYS);
  }
  long long target;
  switch (whence) {
    case SEEK_SET: target = offset; break;
    case SEEK_CUR: target = x_smart_file_offset(io->handle) + offset; break;
    case SEEK_END: {
      long long size = knownSize(io);
      if (size <= 0) return AVERROR(ENOSYS);
      target = size + offset;
      break;
    }
    default: return AVERROR(EINVAL);
  }
  if (target < 0) return AVERROR(EINVAL);
  if (!io->seekable && target < x_smart_file_offset(io->handle)) {
    /* On a stream that cannot be read at random the library carries a
     * reader placed before its oldest buffered byte forward by that
     * offset (what live players expect), so the demuxer would get bytes
     * from elsewhere. Refused instead: FFmpeg serves short steps back from
     * its own buffer, and a demuxer that needs more fails cleanly. */
    io->refusedBack = 1;
    if (io->trace) fprintf(stderr, "trace: seek back to %lld refused\n", target);
    return AVERROR(ESPIPE);
  }
  long long now = 0;
  int code = x_smart_file_seek(io->handle, target, &now);
  if (io->trace) {
    fprintf(stderr, "trace: seek %lld (whence %d): %s (%d), now at %lld\n", (long long)offset,
            whence, codeInWords(code), code, now);
  }
  if (code != SMFR_OK) return toAvError(io, code, "seek");
  return now;
}

/* The interface has no question for it, so it is asked the way the library
 * answers: a far seek on a stream that cannot be read at random is refused
 * with SMFR_BUSY. A seek only places the handle (nothing is fetched before
 * the next read), so asking costs nothing. An unknown size counts as not
 * seekable; a failed open shows on the first read. */
static void checkSeekable(CorvaneIo* io) {
  long long size = knownSize(io);
  long long now = 0;
  io->seekable = 0;
  if (size <= 0) return;
  if (x_smart_file_seek(io->handle, size, &now) != SMFR_OK) return;
  io->seekable = x_smart_file_seek(io->handle, 0, &now) == SMFR_OK && now == 0;
}

static void fail(ProbeRun* run, const char* what, int averr, const CorvaneIo* io) {
  char text[AV_ERROR_MAX_STRING_SIZE];
  av_strerror(averr, text, sizeof(text));
  int n = snprintf(run->error, sizeof(run->error), "%s: %s: %s", run->options->location, what, text);
  if (io != NULL && io->lastCode != SMFR_OK && n > 0 && (size_t)n < sizeof(run->error)) {
    n += snprintf(run->error + n, sizeof(run->error) - (size_t)n, " (library %s: %s, %d)",
                  io->lastCall, codeInWords(io->lastCode), io->lastCode);
  }
  int status = io != NULL && io->handle > 0 ? x_smart_file_http_get_download_status(io->handle) : 0;
  if (status >= 400 && n > 0 && (size_t)n < sizeof(run->error)) {
    n += snprintf(run->error + n, sizeof(run->error) - (size_t)n, " (HTTP status %d)", status);
  }
  if (io != NULL && io->refusedBack && n > 0 && (size_t)n < sizeof(run->error)) {
    snprintf(run->error + n, sizeof(run->error) - (size_t)n,
             " (the source cannot be read at random and the demuxer needed to seek back)");
  }
  run->failed = 1;
}

static void printTs(FILE* out, const char* name, int64_t ts) {
  if (ts == AV_NOPTS_VALUE) {
    fprintf(out, " %s=N/A", name);
  } else {
    fprintf(out, " %s=%" PRId64, name, ts);
  }
}

static void printStreams(FILE* out, const AVFormatContext* fmt) {
  fprintf(out, "container: %s (%s)\n", fmt->iformat->name,
          fmt->iformat->long_name ? fmt->iformat->long_name : "");
  if (fmt->duration != AV_NOPTS_VALUE) {
    fprintf(out, "duration: %.3f s\n", fmt->duration / (double)AV_TIME_BASE);
  } else {
    fprintf(out, "duration: unknown\n");
  }
  for (unsigned i = 0; i < fmt->nb_streams; ++i) {
    const AVStream* st = fmt->streams[i];
    const AVCodecParameters* par = st->codecpar;
    const char* type = av_get_media_type_string(par->codec_type);
    fprintf(out, "stream %u: %s %s", i, type ? type : "unknown", avcodec_get_name(par->codec_id));
    if (par->codec_type == AVMEDIA_TYPE_VIDEO) {
      const char* pix = av_get_pix_fmt_name((enum AVPixelFormat)par->format);
      fprintf(out, " %dx%d %s", par->width, par->height, pix ? pix : "unknown");
      if (st->avg_frame_rate.den != 0) {
        fprintf(out, " %.3f fps", av_q2d(st->avg_frame_rate));
      }
    } else if (par->codec_type == AVMEDIA_TYPE_AUDIO) {
      fprintf(out, " %d Hz %d channels", par->sample_rate, par->ch_layout.nb_channels);
    }
    if (par->bit_rate > 0) fprintf(out, " %" PRId64 " b/s", par->bit_rate);
    fprintf(out, " time_base=%d/%d\n", st->time_base.num, st->time_base.den);
  }
}

static int listPackets(ProbeRun* run, AVFormatContext* fmt, const CorvaneIo* io) {
  struct AVHashContext* hash = NULL;
  AVPacket* pkt = av_packet_alloc();
  if (pkt == NULL || av_hash_alloc(&hash, "MD5") < 0) {
    av_packet_free(&pkt);
    fail(run, "out of memory", AVERROR(ENOMEM), NULL);
    return -1;
  }
  long long count = 0;
  int r;
  while ((r = av_read_frame(fmt, pkt)) >= 0) {
    char hex[2 * AV_HASH_MAX_SIZE + 1];
    av_hash_init(hash);
    av_hash_update(hash, pkt->data, pkt->size);
    av_hash_final_hex(hash, (uint8_t*)hex, sizeof(hex));
    fprintf(run->out, "packet stream_index=%d", pkt->stream_index);
    printTs(run->out, "pts", pkt->pts);
    printTs(run->out, "dts", pkt->dts);
    fprintf(run->out, " size=%d data_hash=%s:%s\n", pkt->size, av_hash_get_name(hash), hex);
    ++count;
    av_packet_unref(pkt);
  }
  av_packet_free(&pkt);
  av_hash_freep(&hash);
  /* Demuxers often turn a failed read into an end of file; the I/O
   * context's own error tells the two apart. */
  if (r == AVERROR_EOF && fmt->pb != NULL && fmt->pb->error < 0) r = fmt->pb->error;
  if (r != AVERROR_EOF) {
    char what[96];
    snprintf(what, sizeof(what), "demuxing failed after %lld packets", count);
    fail(run, what, r, io);
    return -1;
  }
  fprintf(run->out, "packets: %lld\n", count);
  return 0;
}

static void probe(ProbeRun* run) {
  const Options* o = run->options;
  AVFormatContext* fmt = avformat_alloc_context();
  AVIOContext* pb = NULL;
  CorvaneIo io = {-1, 0, SMFR_OK, "", o->trace, 1, 0};
  AVDictionary* opts = NULL;
  int r;
  if (fmt == NULL) {
    fail(run, "out of memory", AVERROR(ENOMEM), NULL);
    return;
  }
  if (!o->direct) {
    int code = o->buffer > 0 ? x_smart_file_open_x(o->location, &io.handle, (int)o->buffer)
                             : x_smart_file_open(o->location, &io.handle);
    if (code != SMFR_OK) {
      io.lastCode = code;
      io.lastCall = "open";
      fail(run, "cannot open", AVERROR(EINVAL), &io);
      avformat_free_context(fmt);
      return;
    }
    checkSeekable(&io);
    unsigned char* buffer = av_malloc(IO_BUFFER_SIZE);
    pb = buffer ? avio_alloc_context(buffer, IO_BUFFER_SIZE, 0, &io, readPacket, NULL, seekTo)
                : NULL;
    if (pb == NULL) {
      av_free(buffer);
      x_smart_file_close(io.handle);
      avformat_free_context(fmt);
      fail(run, "out of memory", AVERROR(ENOMEM), NULL);
      return;
    }
    pb->seekable = io.seekable ? AVIO_SEEKABLE_NORMAL : 0;
    fmt->pb = pb;
    fmt->flags |= AVFMT_FLAG_CUSTOM_IO;
  }
  /* As ffprobe does, so that both see the same programs of a transport
   * stream. */
  av_dict_set(&opts, "scan_all_pmts", "1", 0);
  r = avformat_open_input(&fmt, o->direct ? o->location : NULL, NULL, &opts);
  av_dict_free(&opts);
  if (r < 0) {
    /* avformat_open_input frees the context on failure. */
    fail(run, "cannot open", r, o->direct ? NULL : &io);
  } else if ((r = avformat_find_stream_info(fmt, NULL)) < 0) {
    fail(run, "cannot find the stream parameters", r, o->direct ? NULL : &io);
  } else {
    fprintf(run->out, "location: %s\n", o->location);
    if (!o->direct) fprintf(run->out, "seekable: %s\n", io.seekable ? "yes" : "no");
    printStreams(run->out, fmt);
    if (o->packets) listPackets(run, fmt, o->direct ? NULL : &io);
  }
  avformat_close_input(&fmt);
  if (pb != NULL) {
    av_freep(&pb->buffer);
    avio_context_free(&pb);
  }
  if (io.handle > 0) x_smart_file_close(io.handle);
}

static void* probeThread(void* arg) {
  probe((ProbeRun*)arg);
  return NULL;
}

static int parseNumber(const char* text, long long min, long long max, long long* out) {
  char* end = NULL;
  errno = 0;
  long long v = strtoll(text, &end, 0);
  if (errno != 0 || end == text || *end != '\0' || v < min || v > max) return 0;
  *out = v;
  return 1;
}

int main(int argc, char** argv) {
  Options o = {NULL, 0, 0, 1, 0, 0};
  long long logLevel = 0, threads = 1;
  int haveLogLevel = 0, verbose = 0;
  for (int i = 1; i < argc; ++i) {
    const char* a = argv[i];
    int needsValue = strcmp(a, "--threads") == 0 || strcmp(a, "--buffer") == 0 ||
                     strcmp(a, "--log-level") == 0;
    if (needsValue && i + 1 >= argc) {
      fprintf(stderr, "corvane-probe: %s needs a value\n%s", a, kUsage);
      return 2;
    }
    if (strcmp(a, "-h") == 0 || strcmp(a, "--help") == 0) {
      fputs(kUsage, stdout);
      return 0;
    } else if (strcmp(a, "--packets") == 0) {
      o.packets = 1;
    } else if (strcmp(a, "--direct") == 0) {
      o.direct = 1;
    } else if (strcmp(a, "--trace") == 0) {
      o.trace = 1;
    } else if (strcmp(a, "--verbose") == 0) {
      verbose = 1;
    } else if (strcmp(a, "--threads") == 0) {
      if (!parseNumber(argv[++i], 1, MAX_THREADS, &threads)) {
        fprintf(stderr, "corvane-probe: --threads takes 1 to %d\n", MAX_THREADS);
        return 2;
      }
    } else if (strcmp(a, "--buffer") == 0) {
      if (!parseNumber(argv[++i], 1, 0x7fffffff, &o.buffer)) {
        fprintf(stderr, "corvane-probe: --buffer takes a positive byte count\n");
        return 2;
      }
    } else if (strcmp(a, "--log-level") == 0) {
      if (!parseNumber(argv[++i], -1000, 1000, &logLevel)) {
        fprintf(stderr, "corvane-probe: --log-level takes a number\n");
        return 2;
      }
      haveLogLevel = 1;
    } else if (a[0] == '-') {
      fprintf(stderr, "corvane-probe: unknown option %s\n%s", a, kUsage);
      return 2;
    } else if (o.location == NULL) {
      o.location = a;
    } else {
      fprintf(stderr, "corvane-probe: only one LOCATION, got '%s' too\n", a);
      return 2;
    }
  }
  if (o.location == NULL) {
    fprintf(stderr, "corvane-probe: no LOCATION given\n%s", kUsage);
    return 2;
  }
  int urlOk = o.location[0] == '/' || strncasecmp(o.location, "http://", 7) == 0 ||
              strncasecmp(o.location, "https://", 8) == 0;
  if (!urlOk && !o.direct) {
    fprintf(stderr, "corvane-probe: '%s': a location must start with http://, https:// or /\n",
            o.location);
    return 2;
  }
  o.threads = (int)threads;
  av_log_set_level(verbose ? AV_LOG_INFO : AV_LOG_ERROR);
  if (haveLogLevel) x_smart_file_set_log_level((int)logLevel);
  if (o.direct) avformat_network_init();

  ProbeRun runs[MAX_THREADS];
  memset(runs, 0, sizeof(runs));
  int failed = 0;
  if (o.threads == 1) {
    runs[0].options = &o;
    runs[0].out = stdout;
    probe(&runs[0]);
  } else {
    pthread_t ids[MAX_THREADS];
    int started = 0;
    for (int i = 0; i < o.threads; ++i) {
      runs[i].options = &o;
      runs[i].out = open_memstream(&runs[i].text, &runs[i].textSize);
      if (runs[i].out == NULL || pthread_create(&ids[i], NULL, probeThread, &runs[i]) != 0) {
        fprintf(stderr, "corvane-probe: cannot start thread %d\n", i);
        if (runs[i].out != NULL) fclose(runs[i].out);
        runs[i].out = NULL;
        failed = 1;
        break;
      }
      ++started;
    }
    for (int i = 0; i < started; ++i) {
      pthread_join(ids[i], NULL);
      fclose(runs[i].out);
      printf("# thread %d\n", i);
      fwrite(runs[i].text, 1, runs[i].textSize, stdout);
      free(runs[i].text);
    }
  }
  for (int i = 0; i < o.threads; ++i) {
    if (runs[i].failed) {
      if (o.threads > 1) {
        fprintf(stderr, "corvane-probe: thread %d: %s\n", i, runs[i].error);
      } else {
        fprintf(stderr, "corvane-probe: %s\n", runs[i].error);
      }
      failed = 1;
    }
  }
  if (o.direct) avformat_network_deinit();
  fflush(stdout);
  return failed ? 1 : 0;
}
