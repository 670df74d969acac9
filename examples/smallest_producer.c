#include <orvane/orvane.h>
#include <stdio.h>

int main(int argc, char** argv) {
  orvane_stream* stream;
  orvane_stream_options options;
  orvane_receipt stored;
  orvane_stream_options_init(&options, sizeof options);
  options.socket = argc > 1 ? argv[1] : NULL; /* NULL: the only server that runs on this machine */
  options.label = "oranges";
  int status = orvane_stream_open(&options, &stream);
  if (status == 0) {
    status = orvane_stream_write(stream, "14 crates of oranges", 20, NULL);
  }
  if (status == 0) {
    status = orvane_stream_finish(stream, orvane_receipt_init(&stored, sizeof stored));
  }
  if (status == 0) {
    printf("stored %llu bytes as %s\n", (unsigned long long)stored.bytes, stored.stream);
  } else {
    fprintf(stderr, "producer: %s\n", orvane_stream_message(stream));
  }
  orvane_stream_close(stream);
  return status == 0 ? 0 : 1;
}
