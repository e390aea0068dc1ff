"""The page of attestctl attest --html, as a browser shows it."""

import json
import os
import pathlib
import re
import subprocess
import tempfile
import unittest

import fake_node as wire
import remote_attestation_api_pb2 as api
from browser import Browser

SOURCE = pathlib.Path(__file__).resolve().parents[2]
BUILD = os.environ["BUILD"]
VIEWS = [(width, dark) for width in (390, 1400) for dark in (False, True)]
SCRIPT = "<script>document.title='taken over'</script>"
ATTACKS = [SCRIPT, "</style></title></table></script>" + SCRIPT, "\"'><img src=x onerror=document.title='taken&over'>",
           "&lt;b&gt; &amp;#60;", "<!--", "javascript:document.title=1"]

# Elements whose text can be told from their background (WCAG's contrast), by what they are for.
CONTRAST = """(() => {
  const canvas = document.createElement('canvas').getContext('2d', {willReadFrequently: true});
  const rgba = (colour) => {
    canvas.clearRect(0, 0, 1, 1); canvas.fillStyle = colour; canvas.fillRect(0, 0, 1, 1);
    return [...canvas.getImageData(0, 0, 1, 1).data];
  };
  const light = (c) => [0.2126, 0.7152, 0.0722].reduce((sum, weight, i) => {
    const v = c[i] / 255;
    return sum + weight * (v <= 0.04045 ? v / 12.92 : ((v + 0.055) / 1.055) ** 2.4);
  }, 0);
  const behind = (element) => {
    for (; element; element = element.parentElement) {
      const c = rgba(getComputedStyle(element).backgroundColor);
      if (c[3] === 255) return c;
    }
    return [255, 255, 255, 255];
  };
  const bad = [];
  for (const element of document.querySelectorAll('h1, h2, h3, p, b, i, span, code, dt, dd, a, th, td, label, output')) {
    if (![...element.childNodes].some((n) => n.nodeType === 3 && n.data.trim()) || !element.checkVisibility()) continue;
    const [a, b] = [light(rgba(getComputedStyle(element).color)), light(behind(element))].sort((x, y) => y - x);
    if ((a + 0.05) / (b + 0.05) < 4.5) bad.push(element.outerHTML.slice(0, 120));
    if (bad.length > 3) break;
  }
  return bad;
})()"""
TOO_WIDE = "document.scrollingElement.scrollWidth - document.documentElement.clientWidth"
# What a reader sees without scrolling, top down.
FIRST_GLANCE = """[...document.querySelectorAll('h1, .why, .failures li, .tally')].filter((e) => {
  const box = e.getBoundingClientRect();
  return box.top >= 0 && box.bottom <= innerHeight && box.left >= 0 && box.right <= innerWidth && box.height > 0 &&
    e.checkVisibility({opacityProperty: true, visibilityProperty: true});
}).map((e) => e.tagName === 'DIV' ? 'TALLY' : e.tagName)"""


def hostile_node():
    """A node and its management controller, with an attack in every text that they send."""
    answers = {}

    def both(make):
        return [make("rack1 " + ATTACKS[2]), make("bmc1")]

    text = " ".join(ATTACKS)
    answers["GetCertificate"] = api.get_certificate_response(node_data=both(lambda name: api.SystemCertificates(
        node_name=name, certs=[api.CERTIFICATE_ENTRY(name=text, data=text.encode())])))
    answers["AttestPcrs"] = api.attest_pcr_response(node_data=both(lambda name: api.NodePCRData(
        node_name=name, uptime=90061, pcrs=[api.PCR_DUMP(index=i, value=bytes([i]) * 32) for i in range(24)])))
    events = wire.boot_events()
    events[3].event_type, events[3].event_data = 5, text.encode()
    events[3].event_size = len(events[3].event_data)
    answers[wire.BOOT_LOG] = api.get_platform_boot_integrity_event_logs_response(
        node_data=both(lambda name: api.NodeBootIntegrityLog(node_name=name, events=events, uptime=5)))
    answers["GetPlatformHwIntegrity"] = api.get_platform_hw_integrity_response(node_data=both(
        lambda name: api.tpm_hw_integrity(
            node_name=name, source_name=text, key_cert_name=text,
            uid_digests_db0=[api.UID_DIGEST(index=i, digest=bytes([7 * i]) * 32) for i in range(3)],
            uid_digests_db1=[api.UID_DIGEST(index=i, digest=bytes([i]) * 32) for i in range(4)])))
    names = [f"/opt/{a}".encode() for a in ATTACKS] + [b"/bytes/\xff\x1b[31m\xe2\x80\xae\x00"] + [b"/plain"] * 3
    list_ = [api.IMA_EVENT(event_num=n, template_name=text.encode(), event_name=name, digest=b"d" * 32,
                           digest_algo=text.encode(), template_hash=bytes(20) if n == 9 else b"t" * 20, pcr=10,
                           duplicate=n == 10, signature=b"s" * (n == 1)) for n, name in enumerate(names, 1)]
    answers[wire.STREAM] = [api.NodeIMAData(node_name="bmc1", events=list_, uptime=5)]
    return answers


def long_list(events):
    """Every third event repeats; one violation where the page has to cut."""
    def stream(*_):
        for first in range(1, events + 1, 1000):
            record = wire.ima_record(first, 1000)
            for event in record.events:
                event.event_name = b"/usr/lib/file-%d" % event.event_num
                event.duplicate = event.event_num % 3 == 0
            if first == 110_001:
                record.events[5].template_hash = bytes(20)
            yield record
    return {wire.STREAM: stream}


class Page(wire.Program):
    @classmethod
    def setUpClass(cls):
        cls.browser = cls.enterClassContext(Browser())
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.path = f"{cls.folder}/page.html"

    def attest(self, answers, status):
        with wire.FakeNode(answers) as node:
            done = wire.run(node.target, "attest", "--html", self.path)
        self.assertEqual((done.returncode, done.stderr), (status, b""))

    def show(self, **how):
        self.browser.show(self.path, **how)
        return self.browser.value

    def looks_good(self):
        """At every width and in both schemes: nothing sticks out, every text can be read, the verdict comes first."""
        papers = {}
        for width, dark in VIEWS:
            with self.subTest(width=width, dark=dark):
                value = self.show(width=width, dark=dark)
                papers[dark] = value("getComputedStyle(document.body).backgroundColor")
                self.assertEqual(value(TOO_WIDE), 0)
                self.assertEqual(value(CONTRAST), [])
                self.assertEqual(value(FIRST_GLANCE)[:2], ["H1", "P"])
                self.assertEqual(self.browser.complaints, [])
        self.assertNotEqual(papers[False], papers[True])

    def test_verified_node(self):
        node = [f"{SOURCE}/tools/node", "--build", BUILD, "--state", self.folder, "--boot-log",
                f"{wire.DATA}/recorded-a-boot.bin", "--ima-log", f"{wire.DATA}/recorded-a-ima.bin", "--"]
        done = subprocess.run([*node, "attestctl", "attest", "--html", self.path], capture_output=True, timeout=300,
                              check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.looks_good()
        value = self.show(script=False)  # everything can be read without
        self.assertEqual(value("document.querySelector('h1').textContent"), "VERIFIED")
        self.assertIn("TALLY", value(FIRST_GLANCE))
        self.assertEqual(value("document.querySelectorAll('.boot tbody tr').length"), 25)
        self.assertEqual(value("document.querySelectorAll('.ima tbody tr').length"), 2675)
        self.assertEqual(value("document.querySelectorAll('.ima tr.v').length"), 2)
        self.assertFalse(value("document.querySelector('form.search').checkVisibility()"))
        rows = value("[...document.querySelectorAll('table.pcrs')].slice(0, 1).flatMap((t) => [...t.tBodies[0].rows])"
                     ".map((r) => [...r.cells].map((c) => c.innerText.trim()).join('|'))")
        said = done.stdout.decode()
        self.assertEqual(len(rows), 24)
        self.assertRegex(rows[10], r"^10\|[0-9a-f]{64}\|same IMA list to event 2,675\|signed$")
        self.assertRegex(rows[15], r"^15\|[0-9a-f]{64}\|same recorded hardware, \d+ chips?\|signed$")
        self.assertEqual(rows[17], "17|ones|no log tells|signed")
        signed = value("[...document.querySelectorAll('.chain > .note')].map((p) => p.innerText)")
        self.assertEqual(len(signed), 2)
        for words in signed:
            self.assertRegex(words, "^Signature over nonce [0-9a-f]{64} and the certificates pass$")
        proven = value("[...document.querySelectorAll('.boot tbody tr')].map((r) => [r.querySelector('b').innerText, "
                       "r.innerText.includes('data not proven')])")
        self.assertIn(["EV_SEPARATOR", False], proven)
        self.assertNotIn(["EV_SEPARATOR", True], proven)  # its digest is that of its data
        self.assertIn(["EV_EFI_BOOT_SERVICES_APPLICATION", True], proven)  # its digest is the image's
        for reason in re.findall(r"^    .{28} pass     (.*)$", said, re.MULTILINE):
            self.assertTrue(value(f"document.querySelector('main').innerText.includes({json.dumps(reason)})"), reason)

    def test_attacks_are_text(self):
        self.attest(hostile_node(), 1)
        page = pathlib.Path(self.path).read_bytes()
        self.assertIsNone(wire.STEERING.search(page.decode()))
        self.assertIn(b"&quot;&#39;&gt;&lt;img src=x", page)  # fit for an attribute, too
        self.looks_good()
        value = self.show()
        self.assertEqual(value("document.title").split(":")[0], "NOT VERIFIED")
        self.assertEqual(value("document.querySelectorAll('script, style, img, iframe, link, [style]').length"), 2)
        self.assertEqual(self.browser.requests, [f"file://{self.path}"])
        empty = "(a) => !document.querySelector(`${a.hash} :is(article, td)`)"
        self.assertEqual(value(f"[...document.querySelectorAll('nav a')].filter({empty}).map((a) => a.hash)"), [])
        files = value("[...document.querySelectorAll('.ima td:nth-child(2)')].map((c) => c.textContent)")
        self.assertEqual(files[:6], [f"/opt/{ATTACKS[0]} signed"] + [f"/opt/{a}" for a in ATTACKS[1:]])
        self.assertEqual(files[6:], [r"/bytes/\xff\x1b[31m\u{202e}\x00", "/plain", "/plain violation", "/plain repeat"])
        self.assertTrue(value(f"document.querySelector('#boot .rows').innerText.includes({json.dumps(SCRIPT)})"))
        boxes = value("[...document.querySelectorAll('#checks article')].map((a) => a.getBoundingClientRect().top)")
        self.assertEqual((len(boxes), len(set(boxes))), (2, 1))  # the sources are side by side
        chips = value("[...document.querySelectorAll('#hardware tbody')].slice(0, 1).flatMap((t) => [...t.rows])"
                      ".map((r) => r.cells[2].innerText.split(' ')[0].trim())")
        self.assertEqual(chips, ["same", "differs", "differs", "added"])

    def test_script_that_got_in_would_not_run(self):
        self.attest({}, 1)
        page = pathlib.Path(self.path)
        page.write_text(page.read_text().replace("</main>", SCRIPT + "<img src=http://127.0.0.1:9/x></main>"))
        value = self.show()
        self.assertEqual(value("document.title").split(":")[0], "NOT VERIFIED")
        self.assertEqual(len(self.browser.complaints), 2)

    def test_list_of_any_length_stays_usable(self):
        self.attest(long_list(150_000), 1)
        value = self.show(script=False)
        self.assertEqual(value("document.querySelectorAll('.ima tbody tr').length"), 110_001)
        said = value("document.querySelector('#ima .cut').innerText")
        self.assertIn("the first 100,000, the last 10,000, and 1 violation between; 39,999 events are not on it", said)
        self.assertEqual(value("[...document.querySelectorAll('.ima tr.v td:first-child')].map((c) => c.textContent)"),
                         ["110006"])
        self.assertEqual(value("document.querySelectorAll('.ima b.r').length"), 33_333 + 3_334)
        value = self.show()
        search = "document.querySelector('#ima form.search')"
        value(f"(() => {{ const f = {search}; f.elements[0].value = 'FILE-1499'; f.elements[1].value = 'r'; "
              "f.dispatchEvent(new Event('input')); })()")
        hits = "document.querySelector('#ima form.search + table')"
        value(f"new Promise((done) => {{ const wait = () => {hits}.hidden ? setTimeout(wait, 20) : done(); wait(); }})")
        self.assertRegex(value(f"{search}.querySelector('output').innerText"), r"^36 of 110,001 rows$")
        self.assertEqual(value(f"[...{hits}.tBodies[0].rows].map((r) => r.cells[0].textContent)[0]"), "14991")

    def source(self):
        with open(self.path, encoding="utf-8") as page:
            return page.read()

    def test_templates_add_up(self):
        record = wire.ima_record(1, 24)
        for event in record.events:
            event.template_name = b"template%d" % (event.event_num % 12)
        self.attest({wire.STREAM: [record]}, 1)
        counts = [int(n) for n in re.findall(r"(?:template\d+|others) \((\d+)\)", self.source())]
        self.assertEqual(counts, [2] * 8 + [8])

    def test_values_whose_quote_cannot_be_checked_are_not_called_others(self):
        quote = bytes.fromhex("ff54434780180000") + bytes(27) + bytes.fromhex("00000001000b03ffffff0020") + bytes(32)
        pcrs = [api.PCR_DUMP(index=i, value=bytes(32)) for i in range(24)]
        record = api.NodePCRData(node_name="n", pcrs=pcrs, quote=quote)
        self.attest({"AttestPcrs": api.attest_pcr_response(node_data=[record])}, 1)
        self.assertIn("not checked", self.source())
        self.assertNotIn("other values", self.source())

    def test_page_that_cannot_be_written_asks_nothing(self):
        with wire.FakeNode({}) as node:
            self.expect(wire.run(node.target, "attest", "--html", self.folder), 2,
                        f"cannot write {self.folder}: Is a directory", "")
        self.assertEqual(node.requests, [])


if __name__ == "__main__":
    unittest.main()
