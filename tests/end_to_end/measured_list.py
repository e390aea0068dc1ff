"""A measurement list as a test knows it, by a parser of the tests' own, and a client that asks a node for its."""
import os
import struct
import subprocess

import grpc

import node
from operations import api, method


def make(length, seed):
    """A list with repeated files, violations and all templates that the agent knows."""
    command = [node.BUILD / "tests/ima/write_ima_list", str(length), str(seed)]
    return subprocess.run(command, check=True, stdout=subprocess.PIPE).stdout


def records(data):
    """Of each record: where it ends, its template hash, file name and digest."""
    at = 0
    while at < len(data):
        template_hash = data[at + 4:at + 24]
        (length,) = struct.unpack_from("<I", data, at + 24)
        template = data[at + 28:at + 28 + length]
        at += 28 + length
        if template == b"ima":
            digest = data[at:at + 20]
            (length,) = struct.unpack_from("<I", data, at + 20)
            name = data[at + 24:at + 24 + length]
            at += 24 + length
        else:
            (total, length) = struct.unpack_from("<II", data, at)
            digest = data[at + 8:at + 8 + length].partition(b"\0")[2]
            (name_length,) = struct.unpack_from("<I", data, at + 8 + length)
            name = data[at + 12 + length:at + 12 + length + name_length].rstrip(b"\0")
            at += 4 + total
        yield at, template_hash, name, digest


class Events:
    """What a list says of its events: template hash and file name by number."""

    def __init__(self, data):
        self.bytes, self.ends, self.content = data, [0], [None]
        for end, template_hash, name, _ in records(data):
            self.ends.append(end)
            self.content.append((template_hash, name))

    def first(self, count):
        return self.bytes[:self.ends[count]]


class Client:
    """A client of its own connection. Messages are taken when they are asked for."""

    def __init__(self):
        # A window that does not grow, so that what a client has not taken stays with the agent.
        options = [("grpc.max_receive_message_length", -1), ("grpc.use_local_subchannel_pool", 1),
                   ("grpc.http2.bdp_probe", 0)]
        self.channel = grpc.insecure_channel(os.environ["NODE_ADDRESS"], options)

    def stream(self, start=0, count=0):
        request = api.get_platform_ima_event_logs_request(start_event=start, event_count=count)
        return method(self.channel, "StreamPlatformImaEventLogs")(request, timeout=1200)

    def at_once(self, start=0, count=0):
        request = api.get_platform_ima_event_logs_request(start_event=start, event_count=count)
        return method(self.channel, "GetPlatformImaEventLogs")(request, timeout=1200).node_data
