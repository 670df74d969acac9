/* The C interface of orvane: sends one stream of data to a server on the same machine, and says
 * what the server has stored.
 *
 *   orvane_stream* stream;
 *   orvane_stream_options options;
 *   orvane_receipt receipt;
 *   orvane_stream_options_init(&options, sizeof options);
 *   options.label = "app.log";
 *   if (orvane_stream_open(&options, &stream) != 0 ||
 *       orvane_stream_write(stream, data, size, NULL) != 0 ||
 *       orvane_stream_finish(stream, orvane_receipt_init(&receipt, sizeof receipt)) != 0) {
 *     fprintf(stderr, "%s\n", orvane_stream_message(stream));
 *   }
 *   orvane_stream_close(stream);
 *
 * It is the class orvane::Stream for C, and for languages that call C. Link orvane_c (pkg-config
 * orvane-c). The header compiles as C99 and later, and as C++.
 *
 * Every call that can fail returns a status: 0, or one of those below, or one of the server's, from
 * 1000 on. The message that belongs to it is kept in the handle. No exception leaves a call. Texts
 * are ASCII or UTF-8 and end with a zero byte.
 *
 * A struct whose first member is `size` grows in later releases. A program sets it, by the init
 * function, to the size that it was compiled with, and the library touches no more than that. An
 * option that an older library does not know is refused, and not ignored.
 *
 * One thread uses a handle at a time. In a forked child, every call on a handle but close returns
 * ORVANE_LEASE_LOST. Signals do not shorten a wait.
 */
#ifndef ORVANE_ORVANE_H
#define ORVANE_ORVANE_H

#include <stddef.h>
#include <stdint.h>

#define ORVANE_C_API __attribute__((visibility("default")))

#ifdef __cplusplus
extern "C" {
#endif

/* The statuses that the library returns itself. */
#define ORVANE_OK 0
#define ORVANE_INVALID_ARGUMENT 9 /* nothing has changed */
#define ORVANE_TIMED_OUT 15       /* the stream is as before, and the call may be made again */
#define ORVANE_CORRUPT 32         /* the bytes are not a batch */
#define ORVANE_NOT_OPEN 44        /* written to after orvane_stream_finish() */
#define ORVANE_DOES_NOT_FIT 89    /* the server's messages are too small for data */
#define ORVANE_NO_SERVER 900      /* no server listens there, or there is none or several */
#define ORVANE_LEASE_LOST 901     /* the server died or ended the lease */
#define ORVANE_INCOMPLETE 902     /* the receipt is not that of the whole stream */
#define ORVANE_NO_MEMORY 903      /* there was no memory for the call or its error */
#define ORVANE_INTERNAL 904       /* an error of the library itself */

/* The server's statuses. */
#define ORVANE_BAD_BATCH 1000
#define ORVANE_OUT_OF_ORDER 1001
#define ORVANE_INVALID_RECORD 1002
#define ORVANE_STORE_FAILED 1003
#define ORVANE_SERVER_ENDING 1004
#define ORVANE_LIMIT_REACHED 1005
#define ORVANE_NO_PAIR 1006
#define ORVANE_BAD_REQUEST 1007
#define ORVANE_WORKER_DIED 1008

/* The release of the library, such as "1.0.0". */
ORVANE_C_API const char* orvane_version(void);

/* What a status means, in a few words; "unknown status" for another number. */
ORVANE_C_API const char* orvane_status_text(int status);

/* --- Streams ---------------------------------------------------------------------------------- */

typedef struct orvane_stream orvane_stream;

/* How the data reaches the server. */
#define ORVANE_TRANSPORT_QUEUE 0
#define ORVANE_TRANSPORT_RING 1
#define ORVANE_TRANSPORT_AUTOMATIC 2 /* a ring, or a queue where the server has no rings */

typedef struct orvane_stream_options {
  size_t size;
  const char* socket;   /* NULL: the only socket that matches /run/orvaned/(name)/socket */
  const char* label;    /* NULL or "": none; at most 128 bytes, no control characters */
  unsigned int timeout; /* the longest that one call waits, in seconds, 1 to 86400; 30 */
  int transport;        /* ORVANE_TRANSPORT_AUTOMATIC */
  uint64_t ring_bytes;  /* 8388608; a power of two, 1 MiB to 256 MiB */
} orvane_stream_options;

typedef struct orvane_buffer {
  const void* data;
  size_t size;
} orvane_buffer;

/* How a stream ended. */
#define ORVANE_END_CLOSED 0  /* whole */
#define ORVANE_END_STOPPED 1 /* its producer gave it up */
#define ORVANE_END_CUT_OFF 2 /* its producer or the server ended */
#define ORVANE_END_BROKEN 3  /* a part was lost or could not be stored */

typedef struct orvane_receipt {
  size_t size;
  char stream[128]; /* the id that the server gave to the stream */
  uint64_t records;
  uint64_t bytes;    /* of data */
  uint64_t segments; /* that have data */
  int end;           /* one of the ORVANE_END constants */
} orvane_receipt;

/* What is certain about a stream whose call has failed. */
#define ORVANE_CERTAINTY_STORED 0     /* all of it is stored; only the receipt is lost */
#define ORVANE_CERTAINTY_NOT_STORED 1 /* the store does not have all of it as a closed stream */
#define ORVANE_CERTAINTY_UNKNOWN 2    /* finish was called, and the server has not said more */

/* Fills in the defaults, and returns `options`. `size` is sizeof(orvane_stream_options). */
ORVANE_C_API orvane_stream_options* orvane_stream_options_init(orvane_stream_options* options,
                                                               size_t size);

/* Starts a stream; `options` may be NULL. `*stream` is always set: to a handle whose message says
 * why the call failed, which has to be closed as well; or to NULL if there is no memory. */
ORVANE_C_API int orvane_stream_open(const orvane_stream_options* options, orvane_stream** stream);

/* Append data of any length to the current segment, and wait for room at most for the stream's
 * timeout. `*taken`, if it is not NULL, becomes the number of bytes that were taken, all of them
 * unless the call fails. After ORVANE_TIMED_OUT, write the rest. Data of at most 131072 bytes is
 * taken as a whole or not at all, unless the messages of a queue are smaller. */
ORVANE_C_API int orvane_stream_write(orvane_stream* stream, const void* data, size_t size,
                                     size_t* taken);
ORVANE_C_API int orvane_stream_write_many(orvane_stream* stream, const orvane_buffer* buffers,
                                          size_t count, size_t* taken);

/* Append what there is room for now, and never wait for room. They return 0 also if less was taken
 * than was given. */
ORVANE_C_API int orvane_stream_try_write(orvane_stream* stream, const void* data, size_t size,
                                         size_t* taken);
ORVANE_C_API int orvane_stream_try_write_many(orvane_stream* stream, const orvane_buffer* buffers,
                                              size_t count, size_t* taken);

/* Ends the current segment; the next data starts another one. Has no effect if it has no data. The
 * second one does not wait, and returns ORVANE_TIMED_OUT if there is no room. */
ORVANE_C_API int orvane_stream_end_segment(orvane_stream* stream);
ORVANE_C_API int orvane_stream_try_end_segment(orvane_stream* stream);

/* Hands to the server what was written; fails if the server has refused the stream or has ended. */
ORVANE_C_API int orvane_stream_flush(orvane_stream* stream);
ORVANE_C_API int orvane_stream_try_flush(orvane_stream* stream);

/* Ends an open segment and the stream, and returns when everything is stored. If it fails,
 * orvane_stream_certainty() says what is certain. It may be called again after ORVANE_TIMED_OUT,
 * and goes on waiting. `receipt` may be NULL. The second one does not wait, and returns
 * ORVANE_TIMED_OUT as long as there is no receipt. */
ORVANE_C_API int orvane_stream_finish(orvane_stream* stream, orvane_receipt* receipt);
ORVANE_C_API int orvane_stream_try_finish(orvane_stream* stream, orvane_receipt* receipt);

/* Waits until a try call may go on, after one that could not; returns ORVANE_TIMED_OUT if that
 * takes longer. It is for a program that looks now and then whether it was interrupted. */
ORVANE_C_API int orvane_stream_wait(orvane_stream* stream, unsigned int milliseconds);

/* A descriptor for poll() and epoll, or -1 if the call fails. It is readable when the receipt has
 * come or the server has ended. With a ring it is readable as well when there is room again after a
 * try call has found none; with a queue, make the try call again after a pause of 5 ms. It belongs
 * to the stream. */
ORVANE_C_API int orvane_stream_fd(orvane_stream* stream);

/* ORVANE_TRANSPORT_QUEUE or ORVANE_TRANSPORT_RING; -1 if the stream could not be opened. */
ORVANE_C_API int orvane_stream_transport(const orvane_stream* stream);

/* About the last call on this handle that failed: its status, its message, and what is certain.
 * They are 0, "" and ORVANE_CERTAINTY_NOT_STORED if none has. `stream` may be NULL: then there was
 * no memory for a handle. */
ORVANE_C_API int orvane_stream_status(const orvane_stream* stream);
ORVANE_C_API const char* orvane_stream_message(const orvane_stream* stream);
ORVANE_C_API int orvane_stream_certainty(const orvane_stream* stream);

/* Frees the handle. A stream that is not finished is stopped first, which waits at most 1 s; the
 * store marks it as stopped. `stream` may be NULL. */
ORVANE_C_API void orvane_stream_close(orvane_stream* stream);

/* --- Receipts --------------------------------------------------------------------------------- */

/* Empties a receipt, and returns it. `size` is sizeof(orvane_receipt). */
ORVANE_C_API orvane_receipt* orvane_receipt_init(orvane_receipt* receipt, size_t size);

/* Reads one line of the form that manifests and logs have:
 *   receipt stream=20261121T023224-4711_0 records=12 bytes=1048576 segments=2 end=closed
 * Fails with ORVANE_INVALID_ARGUMENT for another text. */
ORVANE_C_API int orvane_receipt_parse(const char* text, orvane_receipt* receipt);

/* Writes that line, cut to `size` bytes with the zero at its end, and returns the length of the
 * whole line, as snprintf() does; -1 if `receipt` is not valid or there is no memory. */
ORVANE_C_API int orvane_receipt_text(const orvane_receipt* receipt, char* text, size_t size);

/* --- Batches ---------------------------------------------------------------------------------- */

/* A reader of the batches in a capture, or of those that a server has received. */
typedef struct orvane_batch orvane_batch;

typedef struct orvane_record {
  size_t size;
  uint32_t type; /* 0 open, 1 segment data, 2 end of segment, 3 close, 4 stop; or another one */
  uint64_t sequence;
  uint64_t segment;
  uint32_t segment_done;
  uint32_t segment_state;
  uint32_t parameters[3];
  const void* data; /* in the bytes of the batch; NULL if there is none */
  size_t data_size;
} orvane_record;

/* Checks that the `size` bytes are exactly one batch. They must stay until the handle is closed.
 * `*batch` is set as by orvane_stream_open(). */
ORVANE_C_API int orvane_batch_open(const void* bytes, size_t size, orvane_batch** batch);

/* The number of records. */
ORVANE_C_API size_t orvane_batch_count(const orvane_batch* batch);

/* Empties a record, and returns it. `size` is sizeof(orvane_record). */
ORVANE_C_API orvane_record* orvane_record_init(orvane_record* record, size_t size);

/* Fills in the next record, and returns 1; or returns 0 after the last one. */
ORVANE_C_API int orvane_batch_next(orvane_batch* batch, orvane_record* record);

/* Why the batch could not be opened, or "". */
ORVANE_C_API const char* orvane_batch_message(const orvane_batch* batch);

ORVANE_C_API void orvane_batch_close(orvane_batch* batch);

#ifdef __cplusplus
}
#endif

#endif
