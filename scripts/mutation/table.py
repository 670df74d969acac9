"""What is broken, and which tests are to notice. This is the only place that names files and tests;
./dev coverage counts with these tests too.

`python3 scripts/mutation/table.py` prints the executables of the library's tests.
"""
import collections

# `sources`: patterns below the repository's root; a file belongs to the first row that it fits.
# `tests`: what is run, in this order until one fails: an executable, or an executable, a space and a
# filter as GoogleTest takes it.
Row = collections.namedtuple("Row", "sources tests")

PLATFORM = ["platform_tests"]
RECORDS = ["records_tests", "out_of_memory_tests"]
WRITER = ["writer_tests", "writer_replacement_tests", "writer_platform_tests", "peer_tests"]
SERVER = ["server_tests", "logger_tests", "id_locks_tests", "out_of_memory_tests"]
LEASE = ["lease_tests", "lease_system_tests"]
RING = ["ring_tests"]
STREAM = ["stream_tests"]
C = ["c_tests", "c_memory_tests"]
OVER_RINGS = ["writer_tests */Ring.*"]  # of the tests that run over both transports
# All in the test's own process: a test with a whole server takes seconds, and notices no more.
ORVANED = [
    "orvaned_call_tests OutputFile*:StreamFolder*:Segment*:CompressedStream.*:Worker*",
    "orvaned_tests StreamStateTest.*:OutputFileTest.*:SegmentFileTest.*:RecoveryTest.*:"
    "RecoveryInFormat2.*:CompressedRecovery.*:UnfinishedStreams.*:SyncTest.*:"
    "StreamTest.*:StreamEndTest.*:StreamIdTest.*:StoreFailureTest.*:RefusalTest.*:Pause.*:Run.*:"
    "Step.*:WorkerSource.*:WorkersLog.*:TotalsTest.*:QueuePairTest.*:LargeStream.*",
    "store_format_tests Manifest*:*Line.*:Stream*",
]
STORE_FORMAT = [
    "store_format_tests",
    "orvaned_tests RecoveryTest.*:RecoveryInFormat2.*:CompressedRecovery.*:UnfinishedStreams.*",
]

TABLE = [
    Row(["src/records/*"], RECORDS + WRITER),
    Row(["src/writer/record_steps.hpp"], RING + WRITER + RECORDS),
    Row(["src/writer/*"], WRITER + RECORDS),
    Row(["src/server/*"], SERVER),
    Row(["src/lease/*"], LEASE),
    Row(["src/stream/*"], STREAM),
    Row(["src/c/*.?pp"], C),
    Row(["src/ring/*"], RING + OVER_RINGS + LEASE),
    Row([f"tools/orvaned/**/{name}.?pp" for name in (
        "worker", "stream_state", "output_file", "segment_file", "segment_finish", "frame_end",
        "stream_folder", "manifest_file", "manifest_content", "unfinished_streams",
        "unfinished_stream_folder", "recovery")], ORVANED),
    Row([f"tools/store_format/{name}.?pp" for name in (
        "manifest", "manifest_*", "stream_*", "segment_content", "frame_reader", "removed_stream")],
        STORE_FORMAT),
]

# Tells the processor something, and the program nothing.
LEFT_OUT = ["src/ring/prefetch.hpp"]

LIBRARY = list(dict.fromkeys(PLATFORM + RECORDS + WRITER + SERVER + LEASE + RING + STREAM + C))

if __name__ == "__main__":
    print(*LIBRARY, sep="\n")
