#!/usr/bin/env python3
"""Fetches a stream from a NATS cluster, as docs/format.md says: SERVER:PORT HOST/QUEUE/STREAM DIR"""
import json
import os
import re
import socket
import sys
import urllib.parse
import zlib


class Cluster:
    """One request at a time: a message to a subject, and the headers and data of the answer."""

    def __init__(self, server):
        host, port = server.rsplit(":", 1)
        self.file = socket.create_connection((host, int(port))).makefile("rwb")
        self.file.readline()  # INFO
        self.send(b'CONNECT {"verbose":false,"headers":true,"no_responders":true}\r\nSUB _INBOX.reader 1\r\n')

    def send(self, text):
        self.file.write(text)
        self.file.flush()

    def request(self, subject, body):
        data = json.dumps(body).encode()
        self.send(f"PUB {subject} _INBOX.reader {len(data)}\r\n".encode() + data + b"\r\n")
        while True:
            words = self.file.readline().split()
            if words[0] == b"PING":
                self.send(b"PONG\r\n")
            elif words[0] in (b"MSG", b"HMSG"):
                size = int(words[-2]) if words[0] == b"HMSG" else 0
                headers = self.file.read(size).decode().split("\r\n")
                data = self.file.read(int(words[-1]) - size + 2)[:-2]
                return dict(line.split(": ", 1) for line in headers if ": " in line), data


def main(server, name, folder):
    cluster = Cluster(server)
    escaped = [re.sub(rb"[^A-Za-z0-9_-]", lambda byte: b"%%%02X" % byte[0][0], part.encode()).decode() or "%"
               for part in name.split("/")]
    begin = ".".join(["orvane", "1", *escaped])
    info = json.loads(cluster.request("$JS.API.STREAM.INFO.orvane", {"subjects_filter": begin + ".>"})[1])
    subjects = info["state"].get("subjects") or {}
    if begin + ".manifest" not in subjects:
        sys.exit(f"{name} is not there, or not complete")
    os.makedirs(folder, exist_ok=True)
    for subject in subjects:
        headers, data = cluster.request("$JS.API.DIRECT.GET.orvane", {"last_by_subj": subject})
        if f"{zlib.crc32(data):08x}" != headers["Orvane-Crc32"]:
            sys.exit(f"{subject} is damaged")
        file = os.path.join(folder, os.path.basename(urllib.parse.unquote(subject.split(".")[5])))
        with os.fdopen(os.open(file, os.O_WRONLY | os.O_CREAT, 0o666), "wb") as output:
            output.seek(int(headers["Orvane-Offset"]))
            output.write(data)


main(*sys.argv[1:])
