"""A lease with a ring that the harness takes itself, to write into it what it likes. docs/format.md
describes the two files."""

import ctypes
import mmap
import os
import socket
import struct

from programs import START_BOUND, Broken, poll

BYTES = 1 << 20  # of data
PAGE = 4096
LINE = 64
TAIL = HEAD = 64
ANSWERS_TAKEN = ANSWERS_WRITTEN = 192

LONGEST_PACKET = 512
PUNCH_HOLE = 3  # FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE

FUTEX = {"x86_64": 202, "aarch64": 98}.get(os.uname().machine)  # glibc has no function for it
FUTEX_WAKE = 1

libc = ctypes.CDLL(None, use_errno=True)


class Ring:
    """As a producer sees it. Its packets are read by look() alone."""

    def __init__(self, scene, files=()):
        self.packets = []
        self.over = False
        self.tail = 0
        self.frames = 0
        self.client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.client.settimeout(START_BOUND)
        self.client.connect(str(scene.socket))
        socket.send_fds(self.client, [f"orvane 1 ring {BYTES}".encode()], files)
        reply, descriptors, _, _ = socket.recv_fds(self.client, LONGEST_PACKET, 2)
        if not reply.startswith(b"ring ") or len(descriptors) != 2:
            raise Broken(f"no ring was leased: {reply} with {len(descriptors)} files")
        self.queue = reply.decode().split(" ")[1]
        self.file, servers_file = descriptors
        self.memory = mmap.mmap(self.file, PAGE + BYTES)
        self.servers_page = mmap.mmap(servers_file, PAGE, prot=mmap.PROT_READ)
        os.close(servers_file)
        self.client.setblocking(False)

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.client.close()
        os.close(self.file)
        self.memory.close()
        self.servers_page.close()

    def head(self):
        return self.number(self.servers_page, HEAD)

    @staticmethod
    def number(page, place):
        return struct.unpack("=Q", page[place:place + 8])[0]

    def set_tail(self, tail):
        """In one copy of eight bytes: the server never sees a part of it."""
        self.memory[TAIL:TAIL + 8] = struct.pack("=Q", tail % (1 << 64))
        self.wake()

    def wake(self):
        """Ends the server's nap: it looks at the tail now, and not only when the nap is over."""
        if FUTEX is None:
            return
        address = ctypes.addressof(ctypes.c_char.from_buffer(self.memory, TAIL))
        libc.syscall(FUTEX, ctypes.c_void_p(address), FUTEX_WAKE, 1)

    def mend_page(self):
        """What a correct producer would have there, as far as the server reads it again."""
        self.memory[ANSWERS_TAKEN:ANSWERS_TAKEN + 8] = self.servers_page[
            ANSWERS_WRITTEN:ANSWERS_WRITTEN + 8]
        self.set_tail(self.tail)

    def fill_with_zeros(self):
        self.memory[PAGE:] = bytes(BYTES)

    def hand_over(self, *records):
        """Puts a batch of these into the ring, if it has room."""
        batch = struct.pack(">II", 0xFF00EE11, len(records)) + b"".join(records)
        frame = struct.pack("=QQ", len(batch), self.frames + 1) + batch
        size = -len(frame) % LINE + len(frame)
        if self.tail + size - self.head() > BYTES:
            return
        start = self.tail % BYTES
        first = frame[:BYTES - start]
        self.memory[PAGE + start:PAGE + start + len(first)] = first
        self.memory[PAGE:PAGE + len(frame) - len(first)] = frame[len(first):]
        self.frames += 1
        self.tail += size
        self.set_tail(self.tail)

    def punch(self, start, size):
        if libc.fallocate(self.file, PUNCH_HOLE, ctypes.c_long(start), ctypes.c_long(size)) != 0:
            raise OSError(ctypes.get_errno(), "cannot punch a hole into a ring")

    def look(self):
        """Reads what the server has sent; false when the lease has ended."""
        while not self.over:
            try:
                packet = self.client.recv(LONGEST_PACKET)
            except BlockingIOError:
                return True
            except ConnectionResetError:
                packet = b""
            self.over = not packet
            self.packets += [packet.decode()] if packet else []
        return False

    def await_taken(self):
        """Everything that was handed over is, or the lease has ended."""
        poll(lambda: not self.look() or self.head() == self.tail, START_BOUND,
             f"the ring of {self.queue} was neither read nor given up")

    def await_end(self):
        poll(lambda: not self.look(), START_BOUND,
             f"{self.queue}, whose producer broke the rules of its ring, did not end")
