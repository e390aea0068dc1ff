"""What an answer costs against the length of the node's IMA list: runs inside a node (tools/node), prints an SVG.

Of each length: the whole list as one answer without a cache, the same as a stream that fills the cache, as a stream
from the full cache, and the last 1,000 events. The client takes the messages as bytes and decodes nothing.
"""
import math
import os
import pathlib
import subprocess
import sys
import time

import grpc

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests/end_to_end"))
import node  # noqa: E402

LENGTHS = (1_000, 3_000, 10_000, 30_000, 100_000, 300_000, 1_000_000)
ROUNDS = 3
SERVICE = "/remote_attestation_api.RemoteAttestationApi/"
SERIES = (("whole list, one answer, no cache", "#b3541e"), ("stream that fills the cache", "#34618f"),
          ("stream from the cache", "#2f7d4f"), ("the last 1,000 events", "#77756c"))

api = node.load_contract()


def begin(cached):
    node.forget_boot()
    if not cached:
        node.CACHE.write_text("a file where the cache wants its directory")
    node.agent("start", "ATTEST_TRACE=none")
    return grpc.insecure_channel(os.environ["NODE_ADDRESS"], [("grpc.max_receive_message_length", -1),
                                                              ("grpc.use_local_subchannel_pool", 1)])


def take(channel, method, start=0):
    """The milliseconds that it takes to get all of an answer."""
    call = channel.unary_stream(SERVICE + method, api.get_platform_ima_event_logs_request.SerializeToString, None)
    begun = time.perf_counter()
    for _ in call(api.get_platform_ima_event_logs_request(start_event=start), timeout=300):
        pass
    return (time.perf_counter() - begun) * 1e3


def costs_of(length):
    """The milliseconds of each series at a length."""
    uncached = begin(cached=False)
    take(uncached, "GetPlatformImaEventLogs")  # the table of marks is filled
    one_answer = min(take(uncached, "GetPlatformImaEventLogs") for _ in range(ROUNDS))
    channel = begin(cached=True)
    filling = take(channel, "StreamPlatformImaEventLogs")
    cached = min(take(channel, "StreamPlatformImaEventLogs") for _ in range(ROUNDS))
    last = min(take(channel, "StreamPlatformImaEventLogs", length - 999) for _ in range(ROUNDS))
    return one_answer, filling, cached, last


def plot(rows):
    """Both axes logarithmic: a straight line of slope 1 is a cost in proportion to the length."""
    left, top, width, height = 70, 50, 620, 400
    low = math.floor(math.log10(min(min(costs) for _, costs in rows)))
    high = math.ceil(math.log10(max(max(costs) for _, costs in rows)))

    def x(length):
        return left + width * math.log10(length / LENGTHS[0]) / math.log10(LENGTHS[-1] / LENGTHS[0])

    def y(milliseconds):
        return top + height * (high - math.log10(milliseconds)) / (high - low)

    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 760 560" font-family="Helvetica, Arial, sans-serif" '
           f'font-size="12"><rect width="760" height="560" fill="#fff"/><text x="{left}" y="28" font-size="15" '
           f'font-weight="bold">What an answer costs against the length of the IMA list</text>')
    for power in range(low, high + 1):
        yield (f'<path d="M{left} {y(10 ** power):.1f} h{width}" stroke="#ddd"/><text x="{left - 8}" '
               f'y="{y(10 ** power) + 4:.1f}" text-anchor="end">{10 ** power:g} ms</text>')
    for length in LENGTHS:
        yield (f'<path d="M{x(length):.1f} {top} v{height}" stroke="#eee"/><text x="{x(length):.1f}" '
               f'y="{top + height + 18}" text-anchor="middle">{length:,}</text>')
    for number, (name, colour) in enumerate(SERIES):
        points = " ".join(f"{x(length):.1f},{y(costs[number]):.1f}" for length, costs in rows)
        legend = top + height + 42 + 18 * (number // 2)
        yield (f'<polyline points="{points}" fill="none" stroke="{colour}" stroke-width="2"/>'
               f'<path d="M{left + 310 * (number % 2)} {legend - 4} h24" stroke="{colour}" stroke-width="3"/>'
               f'<text x="{left + 310 * (number % 2) + 32}" y="{legend}">{name}</text>')
    yield f'<text x="{left + width}" y="{top + height + 42 + 36}" text-anchor="end">events in the list</text></svg>\n'


def main():
    node.IMA_LOG.parent.mkdir(parents=True, exist_ok=True)
    rows = []
    for length in LENGTHS:
        made = subprocess.run([node.BUILD / "tests/ima/write_ima_list", str(length), "7"], check=True,
                              stdout=subprocess.PIPE)
        node.IMA_LOG.write_bytes(made.stdout)
        rows.append((length, costs_of(length)))
        print(f"{length:>9,} events: " + ", ".join(f"{name} {cost:.2f} ms" for (name, _), cost in
                                                  zip(SERIES, rows[-1][1])), file=sys.stderr, flush=True)
    sys.stdout.write("".join(plot(rows)))


if __name__ == "__main__":
    main()
