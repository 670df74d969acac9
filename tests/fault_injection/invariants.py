"""What must hold of the store, whatever was done to server and producers."""

import re

from programs import Broken
from stored import read_store


def check_store(scene):
    streams = read_store(scene.seen(scene.store))
    for stream in streams:
        check_origin(scene, stream)
    for send in scene.sends:
        check_send(scene, send, streams)
    for server in scene.servers:
        check_receipts(server, streams)


def check_origin(scene, stream):
    """What is stored was sent: all of it when the stream is closed, else its beginning."""
    if stream.queue in scene.strangers:
        return
    if stream.end == "closed":
        known = any(map(stream.holds, scene.contents))
    else:
        known = any(stream.is_part_of(content, scene.segment_size) for content in scene.contents)
    if not known:
        raise Broken(f"{stream.path.name}, {stream.end}, holds what nobody sent")


def check_send(scene, send, streams):
    """What the command says of its files is so."""
    code = send.process.returncode
    for file, content in zip(send.files, send.contents):
        if code == 0 and not any(stream.holds(content) for stream in streams):
            raise Broken(f"{send.name} ended with exit code 0, and {file.name} is not in the store")
        if code == 1 and any(stream.segments and stream.is_part_of(content, scene.segment_size)
                             and any(map(stream.content_of, stream.segments))
                             for stream in streams):
            raise Broken(f"{send.name} ended with exit code 1, but of {file.name} there is a part")
    for stream_id in re.findall(r"\d{8}T\d{6}-\d+_\d+", send.output):
        if not any(stream.id == stream_id for stream in streams):
            raise Broken(f"{send.name} printed {stream_id}, which is not in the store")


def check_receipts(server, streams):
    """Each receipt for a whole stream, as the server's log tells it, is the manifest's."""
    for receipt in re.findall(r"receipt stream=.* end=closed$", server.errors, re.MULTILINE):
        if not any(stream.receipt == receipt for stream in streams):
            raise Broken(f"{server.name} wrote '{receipt}', which no manifest has")
