"""Runs the real vendor server as a child process and talks to it over sockets.
python3 -m unittest tools/test_vendor_server.py"""
import email.utils, http.client, json, os, re, select, signal, socket, ssl, subprocess, tempfile, unittest
import xml.etree.ElementTree as ET

SERVER = os.path.join(os.path.dirname(os.path.abspath(__file__)), "vendor-server")
MAKE_DEMO_CATALOG = os.path.join(os.path.dirname(SERVER), "make-demo-catalog")
READY = re.compile(r"READY port=(\d+) url=(https?)://127\.0\.0\.1:\1 ca=(\S+) log=(\S+)\n\Z")
PACKAGE = os.urandom(300000)  # more than one send chunk
TEMPLATE = (b"<Manifest><ProductInfo><Name>one.pkg</Name><DownloadURL>@BASE@/packages/one.pkg"
            b"</DownloadURL><FileSize>@SIZE:one.pkg@</FileSize></ProductInfo>"
            b"<ProductInfo><FileSize>@SIZE:absent.pkg@</FileSize></ProductInfo></Manifest>")
GOOD = [("platform", "osx"), ("username", "a&amp;b"), ("userpass", "p&w \u00fc")]


def setUpModule():
    global CATALOG
    CATALOG = tempfile.TemporaryDirectory()
    unittest.addModuleCleanup(CATALOG.cleanup)
    os.mkdir(os.path.join(CATALOG.name, "packages"))
    files = {"users.json": json.dumps({"users": {"a&amp;b": "p&w \u00fc", "demo": "velluma"}}).encode(),
             "manifest.xml": TEMPLATE, "other.xml": b"<Manifest/>", "packages/one.pkg": PACKAGE,
             "packages/two.pkg": b"older"}
    for name, data in files.items():
        with open(os.path.join(CATALOG.name, name), "wb") as f:
            f.write(data)


class Server:
    def __init__(self, *args, catalog=None):
        self.stderr = tempfile.TemporaryFile()
        self.proc = subprocess.Popen([SERVER, "--catalog", catalog or CATALOG.name, *args],
                                     stdout=subprocess.PIPE, stderr=self.stderr, text=True)
        ready = select.select([self.proc.stdout], [], [], 30)[0]
        self.line = self.proc.stdout.readline() if ready else ""
        m = READY.match(self.line)
        if not m:
            self.proc.kill()
            raise AssertionError("no ready line: %r" % self.line)
        self.port, self.scheme, self.ca, self.log = int(m[1]), m[2], m[3], m[4]
        self.context = ssl.create_default_context(cafile=None if self.ca == "-" else self.ca)

    def connect(self):
        if self.scheme == "http":
            return http.client.HTTPConnection("127.0.0.1", self.port, timeout=30)
        return http.client.HTTPSConnection("127.0.0.1", self.port, timeout=30, context=self.context)

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        # A stop held up (by a stalled connection), anything on stdout after the
        # ready line, or anything on stderr at all, is a fault.
        self.proc.send_signal(signal.SIGTERM)
        rc = self.proc.wait(30)
        with self.proc.stdout, self.stderr:
            self.stderr.seek(0)
            end = (rc, self.proc.stdout.read() + self.stderr.read().decode())
        assert end == (0, ""), "unclean stop or chatter: %r" % (end,)


def multipart(fields, boundary="b0undary"):
    body = b"".join(b'--%s\r\nContent-Disposition: form-data; name="%s"\r\n\r\n%s\r\n'
                    % (boundary.encode(), k.encode(), v.encode()) for k, v in fields)
    return body + b"--%s--\r\n" % boundary.encode(), {"Content-Type": "multipart/form-data; boundary=" + boundary}


def fetch(conn, method, url, body=None, headers={}, keep=False):
    """The reply and whatever body bytes arrived before the server closed."""
    conn.request(method, url, body, headers)
    reply = conn.getresponse()
    try:
        data = reply.read()
    except http.client.IncompleteRead as e:
        data = e.partial
    if not keep:
        conn.close()
    return reply, data


class TlsModes(unittest.TestCase):
    def test_tls_modes_data(self):
        # Wrong certificates sent per mode, a leaf without the address, an unclean stop.
        rows = {"ca": {True: None, False: "unable to get local issuer certificate"},  # root must not be sent
                "chain": {True: None, False: "self-signed certificate in certificate chain"},
                "self": {False: "self-signed certificate"}}
        for mode, outcomes in rows.items():
            with Server("--tls", mode) as server:
                self.assertEqual(server.ca == "-", mode == "self", "ca= printed for the wrong modes")
                for trusted, error in outcomes.items():
                    with self.subTest(mode=mode, trusted=trusted):
                        context = server.context if trusted else ssl.create_default_context()
                        try:  # check_hostname is on: the leaf must name 127.0.0.1
                            context.wrap_socket(socket.create_connection(("127.0.0.1", server.port)),
                                                server_hostname="127.0.0.1").close()
                            self.assertIsNone(error, "handshake should have failed")
                        except ssl.SSLCertVerificationError as e:
                            self.assertEqual(e.verify_message, error)
            self.assertFalse(os.path.exists(os.path.dirname(server.log)), "temporary state left behind")


class Requests(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.server = Server()
        cls.conn = cls.server.connect()  # one connection throughout: keep-alive must hold

    @classmethod
    def tearDownClass(cls):
        cls.conn.close()
        cls.server.__exit__()

    def test_validation_data(self):
        # Wrong outcome or header, a template not substituted, keep-alive broken by a bad length.
        base = "https://127.0.0.1:%d" % self.server.port
        rows = [("approved for the name as sent on the wire", "", GOOD, "Approved", True),
                ("unknown user", "", [GOOD[0], ("username", "a&b"), GOOD[2]], "Error Account not found", None),
                ("wrong password", "", GOOD[:2] + [("userpass", "p&w")], "Error Wrong password", None),
                ("missing platform", "", GOOD[1:], "Error Missing platform", None),
                ("forced bare error", "?validation=bare-error", GOOD, "Error", None),
                ("forced missing header", "?validation=missing", GOOD, None, None),
                ("forced malformed body", "?validation=malformed", GOOD, "Approved", False),
                ("forced approved-xyz", "?validation=approved-xyz", GOOD, "ApprovedXYZ", True),
                ("other template", "?manifest=other.xml", GOOD, "Approved", True)]
        for name, query, fields, validation, well_formed in rows:
            with self.subTest(name):
                reply, body = fetch(self.conn, "POST", "/forum/currentproducts.php" + query,
                                    *multipart(fields), keep=True)
                self.assertEqual((reply.status, reply.getheader("Validation")), (200, validation))
                if well_formed is False:
                    self.assertRaises(ET.ParseError, ET.fromstring, body)
                elif well_formed and "other" in query:
                    self.assertEqual(body, b"<Manifest/>")
                elif well_formed:
                    root = ET.fromstring(body)
                    self.assertEqual(root.find("ProductInfo/DownloadURL").text, base + "/packages/one.pkg")
                    self.assertEqual([e.text for e in root.iter("FileSize")], [str(len(PACKAGE)), "0"])

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

    def test_package_faults_data(self):
        # Wrong length or content, a drop or pacing ignored, a way out of packages/.
        # Pacing is measured in bench/, not here: these check what arrives.
        rows = [("whole package", "/packages/one.pkg", 200, PACKAGE),
                ("drop after 1000 bytes", "/packages/one.pkg?drop_after=1000", 200, PACKAGE[:1000]),
                ("throttled", "/packages/one.pkg?drop_after=20000&throttle=50000", 200, PACKAGE[:20000]),
                ("delayed", "/packages/one.pkg?delay=0.4", 200, PACKAGE),
                ("forced status", "/packages/one.pkg?status=503", 503, None),
                ("escape by encoded slash", "/packages/..%2Fusers.json", 404, None),
                ("escape by dot-dot", "/packages/../users.json", 404, None),
                ("absent package", "/packages/absent.pkg", 404, None),
                # A flaky network: the first request is dropped, the second is whole.
                ("flaky, first try", "/packages/one.pkg?drop_after=1000&fault_times=1", 200, PACKAGE[:1000]),
                ("flaky, second try", "/packages/one.pkg?drop_after=1000&fault_times=1", 200, PACKAGE),
                ("bad fault count", "/packages/one.pkg?fault_times=x", 400, None),
                ("bad length switch", "/packages/one.pkg?no_length=yes", 400, None),
                ("bad stall", "/packages/one.pkg?stall_after=x", 400, None)]
        for name, url, status, content in rows:
            with self.subTest(name):
                reply, got = fetch(self.server.connect(), "GET", url)
                self.assertEqual(reply.status, status)
                if content is not None:
                    self.assertEqual(reply.getheader("Content-Length"), str(len(PACKAGE)))
                    self.assertEqual(got, content)

    def test_ranges_data(self):
        # A wrong slice or length, a range kept for a changed file, validators missing or unstable.
        conn = self.server.connect()  # kept alive: a wrong length would garble the next reply
        head, _ = fetch(conn, "HEAD", "/packages/one.pkg", keep=True)
        etag, modified = head.getheader("ETag"), head.getheader("Last-Modified")
        mtime = os.stat(os.path.join(CATALOG.name, "packages", "one.pkg")).st_mtime
        self.assertEqual(modified, email.utils.formatdate(mtime, usegmt=True))
        rows = [("from an offset", "bytes=1000-", None, "", 206, "bytes 1000-299999/300000"),
                ("closed", "bytes=100-199", None, "", 206, "bytes 100-199/300000"),
                ("end past the file", "bytes=299990-400000", None, "", 206, "bytes 299990-299999/300000"),
                ("start past the file", "bytes=300000-", None, "", 416, "bytes */300000"),
                ("several ranges: whole", "bytes=0-1,5-6", None, "", 200, None),
                ("backwards: whole", "bytes=5-2", None, "", 200, None),
                ("If-Range by ETag", "bytes=100-199", etag, "", 206, "bytes 100-199/300000"),
                ("If-Range by date", "bytes=100-199", modified, "", 206, "bytes 100-199/300000"),
                ("If-Range weak: whole", "bytes=100-199", "W/" + etag, "", 200, None),
                ("dropped slice", "bytes=100-", None, "?drop_after=50", 206, "bytes 100-299999/300000")]
        for name, wanted, if_range, query, status, content_range in rows:
            with self.subTest(name):
                headers = {"Range": wanted, **({"If-Range": if_range} if if_range else {})}
                reply, body = fetch(conn, "GET", "/packages/one.pkg" + query, headers=headers, keep=not query)
                self.assertEqual((reply.status, reply.getheader("Content-Range")), (status, content_range))
                if status == 416:
                    continue
                first, last = map(int, re.findall(r"\d+", content_range or "0-299999")[:2])
                self.assertEqual(reply.getheader("Content-Length"), str(last - first + 1))
                self.assertEqual(body, PACKAGE[first:last + 1][:50 if query else None])  # 50: dropped
                self.assertEqual((reply.getheader("ETag"), reply.getheader("Accept-Ranges")), (etag, "bytes"))
        # Rewritten with the same size a moment later: a new ETag, and no range against the old one.
        path = os.path.join(CATALOG.name, "packages", "two.pkg")
        tags = [fetch(conn, "HEAD", "/packages/two.pkg", keep=True)[0].getheader("ETag") for _ in range(2)]
        before = os.stat(path)
        with open(path, "wb") as f:
            f.write(b"newer")
        os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns + 1000000))
        reply, body = fetch(conn, "GET", "/packages/two.pkg", headers={"Range": "bytes=1-", "If-Range": tags[0]})
        self.assertEqual(tags[0], tags[1])
        self.assertNotEqual(reply.getheader("ETag"), tags[0])
        self.assertEqual((reply.status, body), (200, b"newer"))


class BodyEnds(unittest.TestCase):
    def test_body_ends_data(self):
        # A length sent anyway, a stall that ends or sends too much, a clean end and a cut told
        # apart wrongly (TLS close_notify), a stalled connection holding up others or the stop.
        servers = {(): [
            ("GET", "/packages/one.pkg?no_length=1", False, PACKAGE, "close"),
            ("GET", "/packages/one.pkg?no_length=1&drop_after=1000", False, PACKAGE[:1000], "cut"),
            ("POST", "/forum/currentproducts.php?validation=approved-xyz&stall_after=10", True, b"<Manifest>", "stall"),
            ("GET", "/packages/one.pkg?no_length=1&stall_after=999999", False, PACKAGE, "stall")],
            ("--http", "--no-length", "--stall-after", "100"): [
            ("GET", "/packages/one.pkg", False, PACKAGE[:100], "stall"),
            ("GET", "/packages/one.pkg?stall_after=", False, PACKAGE, "close"),
            ("GET", "/packages/one.pkg?stall_after=5&fault_times=1", False, PACKAGE[:5], "stall"),
            ("GET", "/packages/one.pkg?stall_after=5&fault_times=1", True, PACKAGE, "close")]}
        for args, rows in servers.items():
            held = []
            with Server(*args) as server:
                for method, url, has_length, content, end in rows:
                    with self.subTest(args=args, url=url):
                        sock = socket.create_connection(("127.0.0.1", server.port), timeout=30)
                        if server.scheme == "https":
                            sock = server.context.wrap_socket(sock, server_hostname="127.0.0.1",
                                                              suppress_ragged_eofs=False)
                        held.append(sock)
                        sock.sendall(b"%s %s HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\n"
                                     b"Connection: close\r\n\r\n" % (method.encode(), url.encode()))
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
                        except ssl.SSLEOFError:
                            how = "cut"
                        self.assertEqual((head[:12], body, how), (b"HTTP/1.1 200", content, end))
                        self.assertEqual(b"\r\ncontent-length:" in head.lower(), has_length)
            for sock in held:
                sock.close()


class CommandLineSwitches(unittest.TestCase):
    def test_query_overrides_command_line(self):
        # Command-line switches ignored, a query that cannot override them, the plain-socket path.
        manifest = "/forum/currentproducts.php?drop_after="
        with Server("--http", "--drop-after", "10", "--validation", "bare-error") as server:
            base = b"http://127.0.0.1:%d/packages/one.pkg" % server.port
            rows = [("GET", "/packages/one.pkg", {}, None, lambda body: body == PACKAGE[:10]),
                    ("GET", "/packages/one.pkg?drop_after=", {}, None, lambda body: body == PACKAGE),
                    ("GET", "/packages/one.pkg?drop_after=", {"Range": "bytes=299000-"}, None,
                     lambda body: body == PACKAGE[299000:]),
                    ("POST", manifest, {}, "Error", lambda body: body == b""),
                    ("POST", manifest + "&validation=normal", {}, "Approved", lambda body: base in body)]
            for method, url, headers, validation, check in rows:
                with self.subTest(url, **headers):
                    form, form_headers = multipart(GOOD)
                    reply, body = fetch(server.connect(), method, url, form, {**form_headers, **headers})
                    self.assertEqual(reply.getheader("Validation"), validation)
                    self.assertTrue(check(body), body[:200])


class DemoCatalog(unittest.TestCase):
    def test_generated_catalog_serves_every_offer(self):
        # An offer the wizard would hide (size 0), or whose size and address name different files.
        with tempfile.TemporaryDirectory() as folder:
            catalog = os.path.join(folder, "catalog")
            subprocess.run([MAKE_DEMO_CATALOG, catalog], check=True, stdout=subprocess.DEVNULL)
            with Server("--tls", "chain", catalog=catalog) as server:
                reply, body = fetch(server.connect(), "POST", "/forum/currentproducts.php",
                                    *multipart([("platform", "osx"), ("username", "demo"), ("userpass", "velluma")]))
                self.assertEqual(reply.getheader("Validation"), "Approved")
                offers = ET.fromstring(body).findall("ProductInfo")
                self.assertTrue(offers)
                prefix = "https://127.0.0.1:%d/packages/" % server.port
                for offer in offers:
                    with self.subTest(offer.findtext("Name")):
                        size = int(offer.findtext("FileSize"))
                        url = offer.findtext("DownloadURL")
                        self.assertGreater(size, 0)
                        self.assertTrue(url.startswith(prefix), url)
                        reply, package = fetch(server.connect(), "GET", url[len(prefix) - len("/packages/"):])
                        self.assertEqual((reply.status, len(package)), (200, size))
