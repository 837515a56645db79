#!/usr/bin/env python3
""""keyviewctl serve" as its clients meet it: the JSON of the commands, metrics in their format, changes that
reach all followers, rights, limits, clients that are slow, silent or hostile, and its end.

Usage: serve_test.py KEYVIEWCTL EXAMPLE SCHEMAS [--long]

With --long it also waits for the limits of time and sends mutated requests for a minute. It runs with Debian's
Python, which has the checker of the format.
"""
import base64, http.client, json, os, random, re, resource, select, shutil, signal, socket, ssl, subprocess, sys, time, unittest
import urllib.parse

from prometheus_client.openmetrics.parser import text_string_to_metric_families

import hostile
from admin_test import EVERY, EXAMPLE, TOOL, VALIDATOR, Administrator, content
from slips_test import Cluster

LONG = "--long" in sys.argv
MOST_CONNECTIONS = 1200


class UnixConnection(http.client.HTTPConnection):
    def connect(self):
        self.sock = socket.socket(socket.AF_UNIX)
        self.sock.settimeout(20)
        self.sock.connect(self.host)


class Served(Administrator):
    # Starts a server and returns where it is, by what it remarks.
    def serve(self, *words, **how):
        words = words or ("--listen", "127.0.0.1:0")
        self.server = subprocess.Popen([TOOL, "serve", *words], env=self.env, stderr=subprocess.PIPE, text=True, **how)
        self.addCleanup(self.stop)
        place = re.search(r" at (?:https?://)?(.*?)/?\n", self.server.stderr.readline())
        self.assertTrue(place, "the server says where it is")
        self.place = place[1]

    def stop(self):
        self.server.kill()
        self.server.wait()
        self.server.stderr.close()

    def where(self):
        host, port = self.place.rsplit(":", 1)
        return host, int(port)

    def connection(self):
        if self.place.startswith("unix:"):
            return UnixConnection(self.place[5:])
        return http.client.HTTPConnection(*self.where(), timeout=20)

    # Its status, headers and body.
    def ask(self, path, method="GET", headers={}, connection=None):
        connection = connection or self.connection()
        try:
            connection.request(method, path, headers=headers)
            got = connection.getresponse()
            return got.status, got.headers, got.read()
        finally:
            connection.close()

    def events_of_a_change(self):
        with self.follower() as one:
            self.read_until(one, b"event: revision")
            self.good("disable", "sales")
            return self.read_until(one, b"event: revision")

    def body(self, path, status=200):
        got, _, body = self.ask(path)
        self.assertEqual(got, status, (path, body))
        return body

    # What is sent raw, and what comes back until the server closes.
    def raw(self, request, timeout=10):
        with socket.create_connection(self.where(), timeout=timeout) as one:
            answer = b""
            try:
                one.sendall(request)
                while block := one.recv(65536):
                    answer += block
            except OSError:
                pass
            return answer

    def wait_for(self, path, status):
        end = time.monotonic() + 10
        while self.ask(path)[0] != status:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)

    def follower(self):
        one = socket.create_connection(self.where(), timeout=20)
        one.sendall(b"GET /v1/events HTTP/1.1\r\nHost: localhost\r\n\r\n")
        return one

    def read_until(self, one, word):
        seen = b""
        while word not in seen:
            block = one.recv(65536)
            self.assertTrue(block, seen)
            seen += block
        return seen


class Answers(Served):
    def test_the_json_is_that_of_the_commands(self):
        self.good("apply", "-", stdin=json.dumps(hostile.document()).encode())
        self.store("DATABASE.DATABASES.sandbox.ROLE", b"MASTER\0")
        for key in ("DATABASE.STG.a/b.c", "DATABASE.STG.a.b/c"):  # one path for both: that of the scope without "/"
            self.store(key, key.rsplit(".", 1)[1].encode() + b"\0")
        self.serve()
        rows = [("/v1/databases", "list", 0), ("/v1/status", "status", 0), ("/v1/lint", "lint", 8), ("/v1/version", "version", 0),
                ("/v1/databases/SALES", "show sales", 0), ("/v1/databases/ledger", "show ledger", 0), ("/v1/nodeapps", "list nodes", 0),
                ("/v1/nodeapps/NODE1", "nodeapps node1", 0), ("/v1/stg", "list storage-managers", 0), ("/v1/stg/node1/stg1", "stg node1 stg1", 0),
                ("/v1/stg/a/b/c", "stg a b/c", 0)]
        rows = [(path, command.split(), code) for path, command, code in rows]
        rows += [("/v1/databases/" + urllib.parse.quote(one["name"], safe=""), ["show", one["name"]], 0)
                 for one in hostile.document()["databases"]]
        one = self.connection()  # for all of them
        for path, command, code in rows:
            one.request("GET", path)
            got = one.getresponse()
            body = got.read()
            self.assertEqual((got.status, body.decode()), (200, self.good(*command, "-o", "json", code=code)), path)
            self.assertEqual((got.headers["Content-Type"], got.headers["X-Content-Type-Options"], got.headers["Cache-Control"]),
                             ("application/json", "nosniff", "no-store"))
            one.request("GET", path, headers={"If-None-Match": got.headers["ETag"]})
            again = one.getresponse()
            self.assertEqual((again.status, again.read(), again.headers["ETag"]), (304, b"", got.headers["ETag"]))
        one.close()
        for path, kind in (("/", "text/html; charset=utf-8"), ("/v1/events", "text/event-stream")):
            status, headers, body = self.ask(path, "HEAD")
            self.assertEqual((status, headers["Content-Type"], body), (200, kind, b""))
        page = self.body("/").decode()
        self.assertIn("connect-src 'self'", page)
        self.assertIn(self.body("/page.json").decode(), page)
        for path, status in (("/v1/databases/nobody", 404), ("/v2", 404), ("/../etc/passwd", 404), ("/%00", 200), ("/v1/status%2F", 404)):
            body = self.body(path, status)
            if status != 200:
                VALIDATOR.validate(json.loads(body))

    def test_a_change_is_answered_and_reported(self):
        self.serve()
        tag = self.ask("/v1/status")[1]["ETag"]
        seen = self.events_of_a_change().decode()
        line = json.loads(re.search(r"event: change\ndata: (.*)\n", seen)[1])
        VALIDATOR.validate(line)
        self.assertEqual((line["path"], line["after"]), ("DATABASE.DATABASES.sales.ENABLED", "false\0"))
        status, headers, body = self.ask("/v1/status", headers={"If-None-Match": tag})
        self.assertEqual((status, headers["ETag"] != tag), (200, True))
        self.assertTrue(headers["ETag"].startswith('"%d-' % line["revision"]))
        self.assertEqual(body.decode(), self.good("status", "-o", "json"))

    def test_what_cannot_be_read_is_an_error(self):
        self.env["KEYVIEW_LOCK_WAIT"] = "0"
        held = {"/v1/databases/ledger": "LKRT.DATABASE.DATABASES.ledger", "/v1/nodeapps/node1": "LKRT.DATABASE.NODEAPPS.node1",
                "/v1/stg/node1/stg1": "LKRT.STG.DATABASE.STG.node1.stg1"}
        with self.holding(*held.values()):
            self.serve()
            for path in held:
                error = json.loads(self.body(path, 503))
                VALIDATOR.validate(error)
                self.assertEqual(error["error"], "lock", path)
            self.assertEqual(self.ask("/v1/stg/node2/stg2")[0], 200)
            rows = json.loads(self.body("/v1/status"))["databases"]
            self.assertEqual([row["error"] for row in rows if row["database"] == "ledger"], ["lock"])
            self.assertEqual(self.body("/readyz"), b"ok\n")
        for path in held:
            self.wait_for(path, 200)

    def test_metrics_pass_the_checker_of_the_format(self):
        self.store("DATABASE.DATABASES.sandbox.ROLE", b"MASTER\0")
        self.serve()
        self.ask("/nothing")
        status, headers, text = self.ask("/metrics")
        self.assertEqual(headers["Content-Type"], "application/openmetrics-text; version=1.0.0; charset=utf-8")
        families = {one.name: one for one in text_string_to_metric_families(text.decode())}
        values = {(one.name, *one.labels.values()): one.value for family in families.values() for one in family.samples}
        expected = {("keyview_databases", "enabled"): 3, ("keyview_databases", "disabled"): 1, ("keyview_databases", "unreadable"): 0,
                    ("keyview_services", "disabled"): 1, ("keyview_services", "enabled"): 5, ("keyview_instances", "disabled"): 1,
                    ("keyview_instances", "enabled"): 9, ("keyview_registry_up",): 1, ("keyview_findings", "error"): 1,
                    ("keyview_revision",): self.json("tree")["revision"], ("keyview_http_answers_total", "404"): 1,
                    ("keyview_lock_wait_seconds_count",): 4, ("keyview_call_seconds_count", "fetch_db_config"): 4}
        self.assertEqual({name: values.get(name) for name in expected}, expected)
        samples = {name[0] for name in values}
        for example in ("alerts.yaml", "dashboard.json"):
            used = set(re.findall(r"keyview_\w+", content(os.path.join(os.path.dirname(EXAMPLE), example)).decode()))
            self.assertGreater(len(used), 3)
            self.assertLessEqual(used, samples, example)


class Clients(Served):
    # One change reaches all that follow while there is place for no more, and others are answered meanwhile.
    def test_a_thousand_followers_see_a_change(self):
        files = resource.getrlimit(resource.RLIMIT_NOFILE)
        resource.setrlimit(resource.RLIMIT_NOFILE, (files[1], files[1]))
        self.serve()
        count = 1000 // EVERY
        followers = [self.follower() for _ in range(count)]
        poll = select.epoll()
        waiting = {one.fileno(): one for one in followers}

        # The time at which each one has the words.
        def times_of(words):
            seen, times = dict.fromkeys(waiting, b""), []
            for number in waiting:
                poll.register(number, select.EPOLLIN)
            while len(times) < count:
                events = poll.poll(20)
                self.assertTrue(events, "%d of %d" % (len(times), count))
                for number, _ in events:
                    seen[number] += waiting[number].recv(65536)
                    if words in seen[number]:
                        times.append(time.monotonic())
                        poll.unregister(number)
            return times
        times_of(b"event: revision")
        self.assertEqual(self.body("/healthz"), b"ok\n")
        self.good("disable", "sales")
        begun = time.monotonic()
        times = sorted(one - begun for one in times_of(b"event: change"))
        print("%d followers: a change reached them after %.0f ms, p99 %.0f ms, all %.0f ms" % (
            count, times[0] * 1000, times[int(count * 0.99)] * 1000, times[-1] * 1000), file=sys.stderr)
        self.assertLess(times[int(count * 0.99)], 5)
        self.assertEqual(len(os.listdir("/proc/%d/task" % self.server.pid)), 2, "no thread for each")
        if EVERY == 1:
            more = [self.follower() for _ in range(MOST_CONNECTIONS + 20 - count)]
            more[-1].settimeout(0.3)
            with self.assertRaises(TimeoutError, msg="one too many waits until another one leaves"):
                more[-1].recv(1)
            for one in followers[:100]:
                one.close()
            self.good("enable", "sales")  # what is sent finds out that they left
            more[-1].settimeout(20)
            self.assertIn(b"event: revision", self.read_until(more[-1], b"\ndata: "))
            for one in more:
                one.close()
        for one in followers:
            one.close()
        self.assertEqual(self.body("/v1/version"), self.good("version", "-o", "json").encode())

    def test_slow_silent_oversized_and_hostile_clients(self):
        self.serve()
        silent = [socket.create_connection(self.where()) for _ in range(50)]
        slow = self.connection()
        slow.connect()
        slow.sock.sendall(b"GET / HTTP/1.1\r\nHost: loc")
        greedy = socket.socket()
        greedy.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 1024)
        greedy.connect(self.where())
        greedy.sendall(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n" * 20)  # and reads nothing
        rows = [(b"POST /v1/status HTTP/1.1\r\nHost: localhost\r\nContent-Length: 3\r\n\r\nabc", b"405"),
                (b"DELETE / HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n", b"405"),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\nContent-Length: 100000000\r\n\r\n", b"413"),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\nTransfer-Encoding: chunked\r\n\r\n", b"413"),
                (b"GET / HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n", b"421"),
                (b"GET http://evil.example/healthz HTTP/1.1\r\nHost: localhost\r\nConnection: close\r\n\r\n", b"421"),
                (b"GET http://localhost:80/healthz HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n\r\n", b"200"),
                (b"GET / HTTP/1.1\r\nHost: 127.0.0.1.evil.example:80\r\nConnection: close\r\n\r\n", b"421"),
                (b"GET / HTTP/1.1\r\nConnection: close\r\n\r\n", b"400"),
                (b"GET /" + b"a" * 20000 + b" HTTP/1.1\r\nHost: localhost\r\n\r\n", b"414"),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\nX: " + b"a" * 20000 + b"\r\n\r\n", b"431"),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\n" + b"X: a\r\n" * 5000 + b"\r\n", b"431"),
                (b"\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03\r\n\r\n", b""), (b"\0" * 1000 + b"\r\n\r\n", b"")]
        for request, status in rows:
            answer = self.raw(request, 10 if status else 0.3)
            self.assertEqual(answer[9:12] if status else answer[:0], status, (request[:80], answer[:80]))
            self.assertNotIn(b"Sales", answer)
        begun = time.monotonic()
        self.assertIn(b"Sales", self.body("/v1/databases"))
        self.assertLess(time.monotonic() - begun, 2)
        if LONG:
            slow.sock.settimeout(30)
            self.assertEqual(slow.sock.recv(100), b"", "it took too long for a request")
            for one in silent:
                one.settimeout(30)
                self.assertEqual(one.recv(100), b"")
            self.assertIn(b"Sales", self.body("/v1/databases"))
        for one in (*silent, slow, greedy):
            one.close()

    # Their connections do not count as silent ones: they would keep others out until their time is over.
    def test_who_leaves_within_a_request_takes_no_place(self):
        self.serve()
        files = "/proc/%d/fd" % self.server.pid
        before = len(os.listdir(files))
        self.server.send_signal(signal.SIGSTOP)  # the words and the end are there when it looks
        for words in (b"", b"GET / HTTP/1.1\r\nHost: loc", b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\nGE") * 100:
            with socket.create_connection(self.where(), timeout=5) as one:
                one.sendall(words)
        self.server.send_signal(signal.SIGCONT)
        self.assertIn(b"Sales", self.body("/v1/databases"))
        end = time.monotonic() + 4
        while len(os.listdir(files)) > before:
            self.assertLess(time.monotonic(), end)
            time.sleep(0.05)

    # Requests with bytes changed, left out, repeated: none ends the server, and none is answered with a change.
    def test_mutated_requests(self):
        self.serve()
        maker = random.Random(3)
        parts = [b"GET ", b"/v1/databases/", b"sales", b"%00%ff%2e", b" HTTP/1.1\r\n", b"Host: localhost\r\n", b"If-None-Match: \"1\"\r\n",
                 b"Authorization: Basic YTpi\r\n", b"Content-Length: 5\r\n", b"\r\n", b"/v1/events", b"HEAD ", b"Range: bytes=0-\r\n", b"\xff\0", b"?a=b&c",
                 b"Expect: 100-continue\r\n", b"Transfer-Encoding: chunked\r\n", b"Connection: Upgrade\r\nUpgrade: websocket\r\n"]
        end, sent = time.monotonic() + (60 if LONG else 1), 0
        tree = self.good("tree")
        while time.monotonic() < end:
            request = bytearray(b"".join(maker.choices(parts, k=maker.randrange(1, 12))))
            for _ in range(maker.randrange(4)):
                request[maker.randrange(len(request))] = maker.randrange(256)
            with socket.create_connection(self.where(), timeout=5) as one:
                one.sendall(request + maker.choice((b"", b"\r\n", b"\r\n\r\n")))
                one.setblocking(False)
                try:
                    one.recv(4096)
                except BlockingIOError:
                    pass
            sent += 1
        print("%d mutated requests" % sent, file=sys.stderr)
        self.assertIsNone(self.server.poll())
        self.assertIn(b"Sales", self.body("/v1/databases"))
        self.assertEqual(self.good("tree"), tree)


class Rights(Served):
    def certificate(self):
        subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:prime256v1", "-nodes", "-subj", "/CN=localhost", "-days", "2",
                        "-addext", "subjectAltName=DNS:localhost", "-keyout", self.path("key"), "-out", self.path("cert")],
                       check=True, capture_output=True)
        return ["--tls-cert", self.path("cert"), "--tls-key", self.path("key")]

    def login(self, text="carol:secret\n", mode=0o600):
        name = self.written("login%o%d" % (mode, len(text)), text)
        os.chmod(name, mode)
        return ["--login", name]

    def test_others_need_tls_and_a_login(self):
        tls = self.certificate()
        for source, name, mode in (("cert", "wrong", 0o600), ("key", "shown", 0o644)):
            shutil.copyfile(self.path(source), self.path(name))
            os.chmod(self.path(name), mode)
        self.written("empty", "")
        for words, why in (([], "no TLS or no login"), (tls, "no TLS or no login"), (self.login(), "no TLS or no login"),
                           (tls + self.login(mode=0o644), "others than its owner"), (tls + self.login("carol"), "no login"),
                           (["--tls-cert", self.path("empty")] + tls[2:] + self.login(), "no certificate"),
                           (tls[:2] + self.login(), "only one of"), (tls[:3] + [self.path("wrong")] + self.login(), "its key cannot be used"),
                           (tls[:3] + [self.path("shown")] + self.login(), "others than its owner")):
            for address in ("0.0.0.0:0", "[::]:0"):
                ended = self.run_tool("serve", "--listen", address, "--for", "0.1", *words)
                self.assertEqual(ended.returncode, 2, (words, ended.stderr))
                self.assertIn(why, ended.stderr.decode())
        self.serve("--listen", "0.0.0.0:0", *tls, *self.login())
        trusting = ssl.create_default_context(cafile=self.path("cert"))

        def ask(path, login):
            headers = {"Authorization": "Basic " + base64.b64encode(login.encode()).decode()} if login else {}
            return self.ask(path, headers=headers, connection=http.client.HTTPSConnection(
                "localhost", self.where()[1], timeout=20, context=trusting))
        for path in ("/", "/v1/databases", "/v1/events", "/metrics", "/nothing"):
            for login in (None, "carol:secreT", "carol:secret2", "carol:", "carol:secretsecret"):
                status, headers, body = ask(path, login)
                self.assertIn(status, (401, 429))
                self.assertNotIn(b"ales", body)
                self.assertEqual("WWW-Authenticate" in headers, status == 401)
        self.assertEqual(status, 429, "who guesses is slowed down")
        self.assertEqual(ask("/healthz", None)[2], b"ok\n")
        self.assertEqual(ask("/v1/databases", "carol:secret")[0], 200)
        self.assertEqual(self.raw(b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n")[:5], b"", "without TLS nothing is answered")
        old = ssl.SSLContext(ssl.PROTOCOL_TLS_CLIENT)
        old.check_hostname, old.verify_mode = False, ssl.CERT_NONE
        old.set_ciphers("ALL:@SECLEVEL=0")
        old.minimum_version, old.maximum_version = ssl.TLSVersion.TLSv1, ssl.TLSVersion.TLSv1_1
        with self.assertRaises(OSError):
            self.ask("/", connection=http.client.HTTPSConnection("localhost", self.where()[1], timeout=5, context=old))

    def test_secrets_are_cleared_once_they_were_read(self):
        words = self.certificate() + self.login("carol:a-password-in-a-core\n")
        self.serve("--listen", "127.0.0.1:0", *words)
        secrets = content(self.path("key")).split(b"\n")[1:3] + [b"a-password-in-a-core"]
        if EVERY > 1:  # a sanitizer keeps what the library of TLS freed, its copies of the key
            del secrets[:2]
        with open("/proc/%d/maps" % self.server.pid) as maps, open("/proc/%d/mem" % self.server.pid, "rb", 0) as memory:
            for begin, end in re.findall(r"^(\w+)-(\w+) rw", maps.read(), re.M):
                size = int(end, 16) - int(begin, 16)
                if size > 1 << 30:  # the shadow of a sanitizer, which has no copies
                    continue
                memory.seek(int(begin, 16))
                part = memory.read(size)
                self.assertEqual([one for one in secrets if one in part], [], "what a core would contain")

    def test_a_unix_socket_is_its_owners(self):
        path = self.path("socket")
        self.serve("--listen", "unix:" + path)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)
        self.assertIn(b"Sales", self.body("/v1/databases"))
        ended = self.run_tool("serve", "--listen", "unix:" + path, "--for", "0.1")
        self.assertEqual(ended.returncode, 2)
        self.assertIn(b"another server", ended.stderr)
        self.server.kill()
        self.server.wait()
        self.serve("--listen", "unix:" + path)
        self.server.terminate()
        self.assertEqual(self.server.wait(20), 0)
        self.assertFalse(os.path.exists(path))
        self.written("socket", "")
        self.assertEqual(self.run_tool("serve", "--listen", "unix:" + path, "--for", "0.1").returncode, 2)
        self.assertTrue(os.path.exists(path), "what is no socket stays")

    def test_a_socket_is_handed_over(self):
        with socket.create_server(("127.0.0.1", 0)) as listening:
            script = 'exec 3<&%d; LISTEN_PID=$$ LISTEN_FDS=1 exec "$0" serve' % listening.fileno()
            self.server = subprocess.Popen(["bash", "-c", script, TOOL], env=self.env, stderr=subprocess.PIPE, text=True,
                                           pass_fds=[listening.fileno()])
            self.addCleanup(self.stop)
            self.place = "127.0.0.1:%d" % listening.getsockname()[1]
            self.assertIn(self.place, self.server.stderr.readline())
        self.assertIn(b"Sales", self.body("/v1/databases"))


class End(Served):
    def test_sigterm_lets_answers_end(self):
        self.apply(*({"name": "db%d" % n, "spfile": "x" * 900} for n in range(3000)))
        self.serve()
        busy = socket.socket()
        busy.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, 4096)
        busy.connect(self.where())
        busy.sendall(b"GET /page.json HTTP/1.1\r\nHost: localhost\r\n\r\n")
        follower, idle = self.follower(), socket.create_connection(self.where())
        self.read_until(follower, b"event: revision")
        head = busy.recv(4096)
        self.server.terminate()
        self.assertEqual(self.read_until(follower, b"0\r\n\r\n")[-5:], b"0\r\n\r\n", "a whole answer")
        body = head.split(b"\r\n\r\n", 1)[1]
        while block := busy.recv(65536):
            body += block
        self.assertEqual(len(body), int(re.search(rb"Content-Length: (\d+)", head)[1]))
        self.assertEqual(self.server.wait(20), 0)
        self.assertEqual(idle.recv(1), b"")
        with self.assertRaises(ConnectionRefusedError):
            socket.create_connection(self.where())
        for one in (busy, follower, idle):
            one.close()


class InACluster(Served, Cluster):
    def test_changes_come_from_the_history_and_a_failure_is_reported(self):
        self.env["KEYVIEW_ANSWER_WAIT"] = "1"
        self.serve()
        self.assertIn(b"event: change", self.events_of_a_change())
        self.member.send_signal(signal.SIGSTOP)
        try:
            self.wait_for("/readyz", 503)
            error = json.loads(self.body("/v1/status", 503))
            VALIDATOR.validate(error)
            self.assertEqual(error["error"], "registry")
            self.assertIn(b"keyview_registry_up 0\n", self.body("/metrics"))
            self.assertEqual(self.body("/healthz"), b"ok\n")
        finally:
            self.member.send_signal(signal.SIGCONT)
        self.wait_for("/readyz", 200)
        self.assertEqual(self.body("/v1/status").decode(), self.good("status", "-o", "json"))


del Served, Cluster
if __name__ == "__main__":
    del Administrator
    unittest.main(argv=sys.argv[:1] + [word for word in sys.argv[4:] if word != "--long"])
