"""Load on a node's agent, from inside the node: honest clients that ask for all six kinds of evidence, and beside them
connections that idle, TLS handshakes that stop half way and streams that nobody takes. Also a soak, with a kill now
and then."""
import concurrent.futures
import os
import pathlib
import random
import selectors
import socket
import subprocess
import threading
import time

import grpc

import measured_list
import node
from operations import api, method

TLS = "/tmp/tls"
MADE_TLS = """set -e
mkdir -p /tmp/tls/server && cd /tmp/tls
key='-newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2'
openssl req -x509 $key -keyout ca.key -out ca.crt -subj /CN=load-ca
echo 'subjectAltName=IP:127.0.0.1' > ext
for name in server client; do
  openssl req $key -keyout $name.key -out $name.csr -subj /CN=$name
  openssl x509 -req -in $name.csr -CA ca.crt -CAkey ca.key -CAcreateserial -days 2 -extfile ext -out $name.crt
done
cp ca.crt server/client-ca.crt
mv server.crt server.key server
"""
BEGIN_OF_CLIENT_HELLO = bytes.fromhex("160301020001")
REQUESTS = {
    "GetCertificate": api.get_certificate_request(cert_name="Kestrin AIK", nonce=b"n" * 32),
    "AttestPcrs": api.attest_pcr_request(pcr_indices=[0, 7, 10], nonce=b"n" * 32),
    "GetPlatformBootIntegrityEventLogs": api.get_platform_boot_integrity_event_logs_request(),
    "GetPlatformHwIntegrity": api.get_platform_hw_integrity_request(nonce=b"n" * 32),
    "GetPlatformImaEventLogs": api.get_platform_ima_event_logs_request(start_event=2500, event_count=1000),
    "StreamPlatformImaEventLogs": api.get_platform_ima_event_logs_request(start_event=2500, event_count=1000),
}


def begin(events):
    """An agent that serves TLS, on a list of so many events, whose whole chunks the cache has."""
    subprocess.run(["sh", "-c", MADE_TLS], check=True, capture_output=True)
    node.IMA_LOG.write_bytes(measured_list.make(events, 3))
    restart()
    client = Client()
    client.stall()
    got = sum(len(message.events) for message in client.stalled)
    client.channel.close()
    if got != events:
        raise AssertionError(f"a list of {got} events instead of {events}")


def restart():
    node.restart("ATTEST_TRACE=none", f"ATTEST_TLS_DIR={TLS}/server")


def read(name):
    return pathlib.Path(f"{TLS}/{name}").read_bytes()


class Client:
    """A connection of its own. What an operation answers must be evidence."""

    def __init__(self):
        credentials = grpc.ssl_channel_credentials(read("ca.crt"), read("client.key"), read("client.crt"))
        self.channel = grpc.secure_channel(os.environ["NODE_ADDRESS"], credentials,
                                           [("grpc.max_receive_message_length", -1), ("grpc.http2.bdp_probe", 0),
                                            ("grpc.use_local_subchannel_pool", 1)])

    def ask(self, operation):
        """Seconds until the whole answer was there."""
        began = time.monotonic()
        answer = method(self.channel, operation)(REQUESTS[operation], timeout=120)
        if operation.startswith("Stream"):
            if sum(len(message.events) for message in answer) == 0:
                raise AssertionError("a stream without events")
        elif len(answer.node_data) != 1:
            raise AssertionError(f"{operation} without evidence")
        return time.monotonic() - began

    def stall(self):
        """Begins a stream of everything; whoever does not iterate over `stalled` takes nothing of it."""
        everything = api.get_platform_ima_event_logs_request()
        self.stalled = method(self.channel, "StreamPlatformImaEventLogs")(everything, timeout=600)


class Hostile:
    """Connections that stay silent, or stop in their handshake; what the agent ends is opened again."""

    def __init__(self, idle, half_open):
        self.wanted = [b""] * idle + [BEGIN_OF_CLIENT_HELLO] * half_open
        self.opened, self.ended = 0, 0
        self.stopping = threading.Event()
        self.tried_all = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        host, port = os.environ["NODE_ADDRESS"].split(":")
        held, waiting = selectors.DefaultSelector(), list(self.wanted)
        while not self.stopping.is_set():
            for words in waiting[:20]:
                connection = socket.create_connection((host, int(port)))
                self.opened += 1
                try:
                    connection.sendall(words)
                except OSError:
                    pass  # refused, which is read below
                held.register(connection, selectors.EVENT_READ, words)
            del waiting[:20]
            if self.opened >= len(self.wanted):  # those that were ended wait behind the others
                self.tried_all.set()
            for key, _ in held.select(0.1):
                try:
                    if key.fileobj.recv(1000):
                        continue
                except OSError:
                    pass
                held.unregister(key.fileobj)
                key.fileobj.close()
                self.ended += 1
                waiting.append(key.data)
        for key in list(held.get_map().values()):
            key.fileobj.close()

    def stop(self):
        self.stopping.set()
        self.thread.join()


class Watch:
    """The agent's memory of its own and its descriptors, from now on."""

    def __init__(self, pid=None):
        self.pid = pid or node.agent_pid()
        self.idle, self.idle_descriptors = self.resident(), self.descriptors()
        self.peak = self.idle
        self.stopping = threading.Event()
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def resident(self):
        return node.resident(self.pid)

    def descriptors(self):
        return len(os.listdir(f"/proc/{self.pid}/fd"))

    def run(self):
        while not self.stopping.wait(0.1):
            self.peak = max(self.peak, self.resident())

    def stop(self):
        self.stopping.set()
        self.thread.join()


def ask_by_turns(clients, seconds, pause):
    """Each client asks for every operation in turn, with pauses: the times by operation. Any failure is raised."""
    times = {operation: [] for operation in REQUESTS}
    deadline = time.monotonic() + seconds

    def live(client):
        operations = list(REQUESTS)
        chance = random.Random(id(client))
        chance.shuffle(operations)
        turn = 0
        while turn < len(operations) or time.monotonic() < deadline:
            operation = operations[turn % len(operations)]
            times[operation].append(client.ask(operation))
            turn += 1
            time.sleep(chance.uniform(0, 2 * pause))

    with concurrent.futures.ThreadPoolExecutor(len(clients)) as pool:
        for done in [pool.submit(live, client) for client in clients]:
            done.result()
    return times


def load(clients, idle, half_open, stalled, seconds, pause):
    """One load on an agent that `begin` has started; what came of it, as a dictionary."""
    honest = [Client() for _ in range(clients)]
    ask_by_turns(honest, 0, 0.2)  # all are connected
    unloaded = ask_by_turns(honest, seconds, pause)
    watch = Watch()
    stallers = [Client() for _ in range(stalled)]
    for client in stallers:
        client.stall()
    hostile = Hostile(idle, half_open)
    if not hostile.tried_all.wait(120):
        raise AssertionError("not all hostile connections were opened within 120 s")
    loaded = ask_by_turns(honest, seconds, pause)
    held = watch.descriptors()
    hostile.stop()
    for client in stallers:
        client.channel.close()
    node.wait_for(lambda: watch.descriptors() <= watch.idle_descriptors, "the end of the others' descriptors")
    watch.stop()
    time.sleep(2.5)  # the agent looks at its queues every second
    descriptors = watch.descriptors()
    for client in honest:
        client.channel.close()
    return {"unloaded": unloaded, "loaded": loaded, "idle": watch.idle, "peak": watch.peak,
            "after": watch.resident(), "idle descriptors": watch.idle_descriptors, "descriptors under load": held,
            "descriptors after": descriptors, "opened": hostile.opened, "ended": hostile.ended}
