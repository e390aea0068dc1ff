"""What a machine's boot does to its TPM, done again from its logs: every measurement extended in its order, so that
the PCRs are what the logs say."""
import hashlib
import struct

# TPM algorithm identifier: name, digest size.
BANKS = {0x04: ("sha1", 20), 0x0B: ("sha256", 32), 0x0C: ("sha384", 48), 0x0D: ("sha512", 64)}
SHA1 = 0x04

EV_NO_ACTION = 3
STARTUP_LOCALITY = b"StartupLocality\0"

IMA_NAME_SIZE = 256  # the template "ima" hashes a name padded to this


class LogError(ValueError):
    """The log cannot be read."""


class Cursor:
    """Little-endian fields one after the other; a field that is not whole is an error."""

    def __init__(self, data):
        self.data = data
        self.position = 0

    def at_end(self):
        return self.position == len(self.data)

    def take(self, size):
        if len(self.data) - self.position < size:
            raise LogError(f"a field of {size} bytes at offset {self.position} runs past the end of the log")
        self.position += size
        return self.data[self.position - size:self.position]

    def u16(self):
        return struct.unpack("<H", self.take(2))[0]

    def u32(self):
        return struct.unpack("<I", self.take(4))[0]


def boot_events(log):
    """(PCR, type, {bank: digest}, data) of every record of a boot event log."""
    cursor = Cursor(log)
    listed_sizes = {}
    agile = False
    while not cursor.at_end():
        pcr, kind = cursor.u32(), cursor.u32()
        if agile:
            digests = {}
            for _ in range(cursor.u32()):
                bank = cursor.u16()
                if bank not in listed_sizes:
                    raise LogError(f"the log does not list the digest algorithm 0x{bank:04x} that it uses")
                digests[bank] = cursor.take(listed_sizes[bank])
        else:
            digests = {SHA1: cursor.take(20)}
        data = cursor.take(cursor.u32())
        if not agile and kind == EV_NO_ACTION and data.startswith(b"Spec ID Event03\0"):
            agile = True
            listed_sizes = spec_id_digest_sizes(data)
        yield pcr, kind, digests, data


def spec_id_digest_sizes(data):
    cursor = Cursor(data)
    cursor.take(24)
    return dict((cursor.u16(), cursor.u16()) for _ in range(cursor.u32()))


def startup_locality(log):
    """The locality from which the firmware started the TPM, which is PCR 0's first value."""
    for pcr, kind, _, data in boot_events(log):
        if pcr == 0 and kind == EV_NO_ACTION and data.startswith(STARTUP_LOCALITY):
            return data[len(STARTUP_LOCALITY)]
    return 0


def boot_extends(log):
    """(PCR, {bank: digest}) of every measurement of a boot event log. Events of no action were not extended."""
    for pcr, kind, digests, _ in boot_events(log):
        if kind != EV_NO_ACTION:
            yield pcr, {bank: digest for bank, digest in digests.items() if bank in BANKS}


def ima_extends(log):
    """(PCR, {bank: digest}) of every record of an IMA list, as the kernel extends all banks: SHA-1 by the record's
    template hash, the others by their own hash of the template data; a violation by all ones."""
    cursor = Cursor(log)
    while not cursor.at_end():
        pcr, template_hash = cursor.u32(), cursor.take(20)
        template = cursor.take(cursor.u32())
        if template == b"ima":
            digest = cursor.take(20)
            data = digest + cursor.take(cursor.u32()).ljust(IMA_NAME_SIZE, b"\0")
        else:
            data = cursor.take(cursor.u32())
        if template_hash == bytes(20):
            yield pcr, {bank: b"\xff" * size for bank, (_, size) in BANKS.items()}
        else:
            digests = {bank: hashlib.new(name, data).digest() for bank, (name, _) in BANKS.items()}
            yield pcr, digests | {SHA1: template_hash}
