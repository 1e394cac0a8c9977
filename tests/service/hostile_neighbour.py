"""Clients that burden a service for as long as they are let, each in a process of its own."""

import collections
import multiprocessing
import os

from world.harness import PATIENCE
from world.raw_client import RawClient, pack_call

MEGABYTE = 1 << 20
LONG = 30 * MEGABYTE
CALLS = 120  # the bus itself lets no client have more than 128 under way
CONNECTIONS = 8


def never_read(bus, service):
    """Comes again and again, each time with as many calls as it may, and reads no reply. It waits until the calls are
    dealt with: whoever opens connections faster than that makes the bus's queue to any service grow without end."""
    calls = b"".join(pack_call(number, "ReadAllJson", destination=service) for number in range(2, 2 + CALLS))
    unread = collections.deque()
    pace = RawClient(bus)
    while True:
        hostile = RawClient(bus)
        hostile.socket.sendall(calls)
        pace.call("Read", "s", "k", destination=service)
        unread.append(hostile)
        if len(unread) > CONNECTIONS:
            unread.popleft().close()
        yield


def flood(bus, service):
    """Always has many calls under way."""
    hostile = RawClient(bus)
    call = ("Write", "flood", "k", "x" * 1000)
    for _ in range(CALLS):
        hostile.send(*call, destination=service)
    while True:
        hostile.receive()
        hostile.send(*call, destination=service)
        yield


def leave_abruptly(bus, service):
    """Comes, calls, and leaves in the middle of the next call."""
    call = pack_call(9, "Write", "leave", "k", "x" * 1000, destination=service)
    while True:
        hostile = RawClient(bus)
        hostile.send("KeyList", "s", destination=service)
        hostile.socket.sendall(call[:-100])
        hostile.close()
        yield


def send_long_texts(bus, service):
    """Imports 30 MB, again and again."""
    hostile = RawClient(bus)
    call = pack_call(9, "WriteJson", " " * LONG + "[]", destination=service)
    while True:
        hostile.socket.sendall(call)
        hostile.receive()
        yield


def run(behaviour, bus, service, niceness, begun):
    os.nice(niceness)
    for _ in behaviour(bus, service):
        begun.set()


class Neighbour:
    """Behaves like one of these within a `with` block, in which it has begun."""

    def __init__(self, bus, service, behaviour, niceness=0):
        context = multiprocessing.get_context("fork")
        self.begun = context.Event()
        self.process = context.Process(target=run, args=(behaviour, bus, service, niceness, self.begun), daemon=True)

    def __enter__(self):
        self.process.start()
        assert self.begun.wait(PATIENCE), "the neighbour has not begun"
        return self

    def __exit__(self, *_):
        gone = self.process.exitcode is not None
        self.process.kill()
        self.process.join()
        assert not gone, "the neighbour has given up"
