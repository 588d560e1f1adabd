"""The real vendor server as a child process, over sockets: only what the C++ suites, which drive it end
to end, never reach (its own state folder, the raw log, path escapes, bad switch values, byte ranges,
bodies without a length, the command-line switches). python3 -m unittest tools/test_vendor_server.py"""
import http.client, json, os, re, select, signal, socket, ssl, subprocess, tempfile, unittest
import xml.etree.ElementTree as ET

SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vendor-server")
READY = re.compile(r"READY port=(\d+) url=(https?)://127\.0\.0\.1:\1 ca=(\S+) log=(\S+)\n\Z")
PACKAGE = os.urandom(300000)  # more than one send chunk
TEMPLATE = (b"<Manifest><ProductInfo><DownloadURL>@BASE@/packages/one.pkg</DownloadURL><FileSize>@SIZE:one.pkg@"
            b"</FileSize></ProductInfo><ProductInfo><FileSize>@SIZE:absent.pkg@</FileSize></ProductInfo></Manifest>")
GOOD = [("platform", "osx"), ("username", "a&amp;b"), ("userpass", "p&w \u00fc")]


def setUpModule():
    global CATALOG
    CATALOG = tempfile.TemporaryDirectory()
    unittest.addModuleCleanup(CATALOG.cleanup)
    os.mkdir(os.path.join(CATALOG.name, "packages"))
    files = {"users.json": json.dumps({"users": {"a&amp;b": "p&w \u00fc"}}).encode(), "manifest.xml": TEMPLATE,
             "other.xml": b"<Manifest/>", "packages/one.pkg": PACKAGE}
    for name, data in files.items():
        with open(os.path.join(CATALOG.name, name), "wb") as f:
            f.write(data)


def served(base):
    return TEMPLATE.replace(b"@BASE@", base.encode()).replace(b"@SIZE:one.pkg@", b"300000").replace(
        b"@SIZE:absent.pkg@", b"0")


class Server:
    def __init__(self, *args, catalog=None):
        self.stderr, self.held = tempfile.TemporaryFile(), []
        self.proc = subprocess.Popen([SERVER, "--catalog", catalog or CATALOG.name, "--stop-with-parent", *args],
                                     stdout=subprocess.PIPE, stderr=self.stderr, text=True)
        ready = select.select([self.proc.stdout], [], [], 30)[0]
        self.line = self.proc.stdout.readline() if ready else ""
        m = READY.match(self.line)
        if not m:
            self.proc.kill()
            raise AssertionError("no ready line: %r" % self.line)
        self.port, self.scheme, self.ca, self.log = int(m[1]), m[2], m[3], m[4]
        self.base = "%s://127.0.0.1:%d" % (self.scheme, self.port)
        self.context = ssl.create_default_context(cafile=None if self.ca == "-" else self.ca)
        # Some interpreters (Debian's) ignore a missing TLS close by default, which would read a cut as a close.
        self.context.options &= ~ssl.OP_IGNORE_UNEXPECTED_EOF

    def connect(self):  # plain HTTP is read through exchange()
        return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=30, context=self.context)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        # A stop held up (by a stalled connection, closed only afterwards), anything on stdout after
        # the ready line, or anything on stderr at all, is a fault.
        self.proc.send_signal(signal.SIGTERM)
        rc = self.proc.wait(30)
        with self.proc.stdout, self.stderr:
            self.stderr.seek(0)
            end = (rc, self.proc.stdout.read() + self.stderr.read().decode())
        for sock in self.held:
            sock.close()
        assert end == (0, ""), "unclean stop or chatter: %r" % (end,)


def multipart(fields, boundary="b0undary"):
    body = b"".join(b'--%s\r\nContent-Disposition: form-data; name="%s"\r\n\r\n%s\r\n'
                    % (boundary.encode(), k.encode(), v.encode()) for k, v in fields)
    return body + b"--%s--\r\n" % boundary.encode(), {"Content-Type": "multipart/form-data; boundary=" + boundary}


def fetch(conn, method, url, body=None, headers={}, keep=False):
    conn.request(method, url, body, headers)
    reply = conn.getresponse()
    data = reply.read()
    if not keep:
        conn.close()
    return reply, data


def exchange(server, method, url, content, fields=None):
    """Head and body of one reply, and how the body ended: close, cut (no TLS close_notify) or stall."""
    sock = socket.create_connection(("127.0.0.1", server.port), timeout=30)
    if server.scheme == "https":
        sock = server.context.wrap_socket(sock, server_hostname="127.0.0.1", suppress_ragged_eofs=False)
    server.held.append(sock)
    body, headers = multipart(fields) if fields else (b"", {"Content-Type": "text/plain"})
    sock.sendall(b"%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Type: %s\r\nContent-Length: %d\r\n"
                 b"Connection: close\r\n\r\n%s" % (method.encode(), url.encode(), headers["Content-Type"].encode(),
                                                   len(body), body))
    data, how = b"", None
    try:
        while how is None:
            head, sep, body = data.partition(b"\r\n\r\n")
            if sep and len(body) >= len(content):
                sock.settimeout(1)  # all in: from now on, silence is a stall
            chunk = sock.recv(65536)
            data, how = data + chunk, None if chunk else "close"
    except TimeoutError:
        how = "stall"
    except ssl.SSLError as e:
        # Older interpreters (Debian's 3.11.2) report the cut as a plain SSLError of that reason.
        if not isinstance(e, ssl.SSLEOFError) and e.reason != "UNEXPECTED_EOF_WHILE_READING":
            raise
        how = "cut"
    return head, body, how


class Requests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server()
        cls.conn = cls.server.connect()  # one connection throughout: keep-alive must hold

    @classmethod
    def tearDownClass(cls):
        cls.conn.close()
        cls.server.__exit__()
        # Started without a state folder, it leaves no temporary one behind.
        assert not os.path.exists(os.path.dirname(cls.server.log)), "temporary state left behind"

    def test_root_not_sent_in_ca_mode(self):
        context = ssl.create_default_context()
        with socket.create_connection(("127.0.0.1", self.server.port)) as sock, \
                self.assertRaises(ssl.SSLCertVerificationError) as caught:
            context.wrap_socket(sock, server_hostname="127.0.0.1")
        self.assertEqual(caught.exception.verify_message, "unable to get local issuer certificate")

    def test_manifest_page_data(self):
        # A wrong outcome or header, a template not substituted (an absent package's size is 0). A refused
        # password the wizard's and the fault suites show.
        rows = [("approved for the name as sent on the wire", "", GOOD, "Approved", served(self.server.base)),
                ("missing platform", "", GOOD[1:], "Error Missing platform", b""),
                ("other template", "?manifest=other.xml", GOOD, "Approved", b"<Manifest/>")]
        for name, query, fields, validation, body in rows:
            with self.subTest(name):
                reply, got = fetch(self.conn, "POST", "/forum/currentproducts.php" + query, *multipart(fields), True)
                self.assertEqual((reply.status, reply.getheader("Validation"), got), (200, validation, body))

    def test_log_keeps_parts_raw(self):
        # Part headers normalised or part boundaries misplaced in the log tests read back.
        raw = (b"preamble\r\n--xx\r\ncontent-DISPOSITION:  form-data; name=platform\r\nX-Odd: 1\r\n\r\n"
               b"osx\r\n--xx\r\n\r\nno headers\r\n\r\n--xx--\r\n")
        fetch(self.conn, "POST", "/somewhere?a=1", raw, {"Content-Type": "multipart/form-data; boundary=xx"}, True)
        with open(self.server.log, encoding="utf-8") as f:
            entry = json.loads(f.readlines()[-1])
        self.assertEqual((entry["method"], entry["path"], entry["query"], entry["body_length"]),
                         ("POST", "/somewhere", "a=1", len(raw)))
        self.assertEqual(entry["parts"], [
            {"headers": "content-DISPOSITION:  form-data; name=platform\r\nX-Odd: 1", "body": "osx"},
            {"headers": "", "body": "no headers\r\n"}])

    def test_packages_data(self):
        # A way out of packages/, a bad switch value taken, a wrong slice or length, a range kept
        # against a validator that does not match. On the one kept connection a wrong length
        # would garble the next row.
        # Throttling, resuming from an offset and If-Range by ETag the network suite's transfers check.
        head, _ = fetch(self.conn, "HEAD", "/packages/one.pkg", keep=True)
        etag, modified = head.getheader("ETag"), head.getheader("Last-Modified")
        whole = (200, 0, 300000, None)
        rows = [("escape by encoded slash", "/packages/..%2Fusers.json", {}, (404,)),
                ("escape by dot-dot", "/packages/../users.json", {}, (404,)),
                ("absent package", "/packages/absent.pkg", {}, (404,)),
                ("bad fault count", "/packages/one.pkg?fault_times=x", {}, (400,)),
                ("bad length switch", "/packages/one.pkg?no_length=yes", {}, (400,)),
                ("bad stall", "/packages/one.pkg?stall_after=x", {}, (400,)),
                ("closed", "", {"Range": "bytes=100-199"}, (206, 100, 200, "bytes 100-199/300000")),
                ("end past the file", "", {"Range": "bytes=299990-400000"},
                 (206, 299990, 300000, "bytes 299990-299999/300000")),
                ("start past the file", "", {"Range": "bytes=300000-"}, (416,)),
                ("several ranges: whole", "", {"Range": "bytes=0-1,5-6"}, whole),
                ("backwards: whole", "", {"Range": "bytes=5-2"}, whole),
                ("If-Range by date", "", {"Range": "bytes=100-199", "If-Range": modified},
                 (206, 100, 200, "bytes 100-199/300000")),
                ("If-Range weak: whole", "", {"Range": "bytes=100-199", "If-Range": "W/" + etag}, whole)]
        for name, url, headers, expected in rows:
            with self.subTest(name):
                reply, body = fetch(self.conn, "GET", url or "/packages/one.pkg", headers=headers, keep=True)
                self.assertEqual(reply.status, expected[0])
                if len(expected) > 1:
                    status, first, end, content_range = expected
                    self.assertEqual((reply.getheader("Content-Range"), reply.getheader("Content-Length")),
                                     (content_range, str(end - first)))
                    self.assertEqual(body, PACKAGE[first:end])
                    self.assertEqual((reply.getheader("ETag"), reply.getheader("Accept-Ranges")), (etag, "bytes"))


class BodyEnds(unittest.TestCase):
    def test_body_ends_data(self):
        # A length sent anyway, a stall that ends or sends too much, a clean end and a cut told apart
        # wrongly (TLS close_notify), a stalled connection holding up others or the stop; command-line
        # switches ignored, or a query that cannot override them.
        manifest = "/forum/currentproducts.php"
        servers = {(): lambda base: [
            ("GET", "/packages/one.pkg?no_length=1", None, False, PACKAGE, "close", None),
            ("GET", "/packages/one.pkg?no_length=1&drop_after=1000", None, False, PACKAGE[:1000], "cut", None),
            ("POST", manifest + "?stall_after=10", GOOD, True, served(base)[:10], "stall", b"Approved"),
            ("GET", "/packages/one.pkg?no_length=1&stall_after=999999", None, False, PACKAGE, "stall", None)],
            ("--http", "--no-length", "--drop-after", "10", "--stall-after", "100", "--validation", "bare-error"):
            lambda base: [
            ("GET", "/packages/one.pkg", None, False, PACKAGE[:10], "close", None),
            ("GET", "/packages/one.pkg?drop_after=", None, False, PACKAGE[:100], "stall", None),
            ("GET", "/packages/one.pkg?drop_after=&stall_after=5&fault_times=1", None, False, PACKAGE[:5], "stall",
             None),
            ("GET", "/packages/one.pkg?drop_after=&stall_after=5&fault_times=1", None, True, PACKAGE, "close", None),
            ("POST", manifest, GOOD, False, b"", "close", b"Error"),
            ("POST", manifest + "?validation=normal&drop_after=&stall_after=", GOOD, False, served(base), "close",
             b"Approved")]}
        for args, rows in servers.items():
            with Server(*args) as server:
                for method, url, fields, has_length, content, end, validation in rows(server.base):
                    with self.subTest(args=args, url=url):
                        head, body, how = exchange(server, method, url, content, fields)
                        self.assertEqual((head[:12], body, how), (b"HTTP/1.1 200", content, end))
                        self.assertEqual(b"\r\ncontent-length:" in head.lower(), has_length)
                        self.assertEqual(re.search(rb"\r\nValidation: (\S+)", head)[1] if validation else None,
                                         validation)


class DemoCatalog(unittest.TestCase):
    def test_generated_catalog_serves_every_offer(self):
        # An offer the wizard would hide (size 0), or whose size and address name different files.
        with tempfile.TemporaryDirectory() as folder:
            catalog = os.path.join(folder, "catalog")
            subprocess.run([os.path.join(os.path.dirname(SERVER), "make-demo-catalog"), catalog], check=True,
                           stdout=subprocess.DEVNULL)
            with Server("--tls", "chain", catalog=catalog) as server:
                fields = [("platform", "osx"), ("username", "demo"), ("userpass", "velluma")]
                offers = ET.fromstring(fetch(server.connect(), "POST", "/forum/currentproducts.php",
                                             *multipart(fields))[1]).findall("ProductInfo")
                self.assertTrue(offers)
                for offer in offers:
                    with self.subTest(offer.findtext("Name")):
                        url, size = offer.findtext("DownloadURL"), int(offer.findtext("FileSize"))
                        self.assertTrue(url.startswith(server.base + "/packages/"), url)
                        reply, package = fetch(server.connect(), "GET", url[len(server.base):])
                        self.assertEqual((reply.status, len(package), size > 0), (200, size, True))
