/* stream_producer_c SOCKET TRANSPORT FILE PIECE SEGMENT TIMEOUT: as stream_producer.cpp. */
#include <orvane/orvane.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { PATIENCE = 20 }; /* timeouts */

static char* read_file(const char* path, size_t* size) {
  FILE* const file = fopen(path, "rb");
  char* data = NULL;
  if (file == NULL) {
    return NULL;
  }
  fseek(file, 0, SEEK_END);
  *size = (size_t)ftell(file);
  rewind(file);
  data = malloc(*size + 1);
  if (data != NULL && fread(data, 1, *size, file) != *size) {
    free(data);
    data = NULL;
  }
  fclose(file);
  return data;
}

static int write_piece(orvane_stream* stream, const char* data, size_t size) {
  int left = PATIENCE;
  int status;
  size_t taken;
  while ((status = orvane_stream_write(stream, data, size, &taken)) == ORVANE_TIMED_OUT &&
         left-- > 0) {
    data += taken;
    size -= taken;
  }
  return status;
}

static int repeat(int (*call)(orvane_stream*), orvane_stream* stream) {
  int left = PATIENCE;
  int status;
  while ((status = call(stream)) == ORVANE_TIMED_OUT && left-- > 0) {
  }
  return status;
}

static orvane_receipt receipt;

static int finish(orvane_stream* stream) {
  return orvane_stream_finish(stream, orvane_receipt_init(&receipt, sizeof receipt));
}

static int send_all(orvane_stream* stream, const char* data, size_t size, size_t piece,
                    size_t segment) {
  size_t in_segment = 0;
  int status = 0;
  while (status == 0 && size > 0) {
    size_t next = piece < size ? piece : size;
    if (next > segment - in_segment) {
      next = segment - in_segment;
    }
    status = write_piece(stream, data, next);
    data += next;
    size -= next;
    in_segment += next;
    if (status == 0 && in_segment == segment) {
      status = repeat(orvane_stream_end_segment, stream);
      in_segment = 0;
    }
  }
  return status == 0 ? repeat(finish, stream) : status;
}

int main(int argc, char** argv) {
  static const char* const certain[] = {"stored", "not stored", "unknown"};
  orvane_stream* stream = NULL;
  orvane_stream_options options;
  size_t size = 0;
  int status;
  char* const data = argc == 7 ? read_file(argv[3], &size) : NULL;
  if (data == NULL) {
    return 2;
  }
  orvane_stream_options_init(&options, sizeof options);
  options.socket = argv[1];
  options.label = "faults";
  options.transport = strcmp(argv[2], "ring") == 0 ? ORVANE_TRANSPORT_RING : ORVANE_TRANSPORT_QUEUE;
  options.timeout = (unsigned int)strtoul(argv[6], NULL, 10);
  status = orvane_stream_open(&options, &stream);
  if (status == 0) {
    status = send_all(stream, data, size, strtoul(argv[4], NULL, 10), strtoul(argv[5], NULL, 10));
  }
  if (status == 0) {
    printf("stored %s\n", receipt.stream);
  } else {
    printf("%s: %s\n", certain[orvane_stream_certainty(stream)], orvane_stream_message(stream));
  }
  orvane_stream_close(stream);
  free(data);
  return status == 0 ? 0 : 3;
}
