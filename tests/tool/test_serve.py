"""serve: the events, who may look and who may move a hand, and what hostile and slow clients can do."""

import contextlib
import http.client
import json
import os
import resource
import socket
import time
import urllib.parse

import pytest
from conftest import LIMIT
from simulator import MODELS


class Site:
    """`korvane serve` as a program sees it that speaks plain HTTP."""

    def __init__(self, sim, *options, port=0):
        # A busy machine keeps a reply for longer than a hand may.
        self.process = sim.start("serve", "--port", str(port), "--timeout", "500", *options)
        self.url = self.process.stdout.readline().strip()
        assert self.url, self.process.communicate()[1]
        parts = urllib.parse.urlsplit(self.url)
        self.host, self.port, self.netloc = parts.hostname, parts.port, parts.netloc
        self.token = parts.query.removeprefix("token=")
        self.page_token = ""

    def ask(self, method, path, body=None, **headers):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=LIMIT)
        headers = {name.replace("_", "-"): value for name, value in headers.items()}
        connection.request(method, path, body, headers)
        answer = connection.getresponse()
        text = answer.read().decode()
        connection.close()
        is_json = answer.headers["Content-Type"] == "application/json"
        return answer.status, json.loads(text) if is_json else text, answer.headers

    def hands(self, **headers):
        return self.ask("GET", "/api/hands", **headers)[1]

    def page_headers(self, **more):
        self.page_token = self.page_token or self.hands()["page_token"]
        return {"Content_Type": "application/json", "X_Korvane_Page": self.page_token, **more}

    def post(self, path, body, secret="", **more):
        headers = self.page_headers(X_Korvane_Control=secret, **more)
        return self.ask("POST", f"/api/hands/{path}", json.dumps(body), **headers)[:2]

    @contextlib.contextmanager
    def events(self, path="/api/hands/1/events"):
        connection = http.client.HTTPConnection(self.host, self.port, timeout=LIMIT)
        connection.request("GET", path)
        answer = connection.getresponse()
        assert (answer.status, answer.headers["Content-Type"]) == (200, "text/event-stream")
        yield (json.loads(line[6:]) for line in iter(answer.readline, b"") if line.startswith(b"data: "))
        answer.close()
        connection.close()

    def event(self, fits=lambda event: True):
        """The first event that fits."""
        with self.events() as events:
            return next(event for event in events if fits(event))

    def end(self):
        if self.process.poll() is None:
            self.process.send_signal(2)
        out, err = self.process.communicate(timeout=LIMIT)
        return self.process.returncode, out, err


@pytest.fixture
def serve(sim):
    sites = []

    def start(*options, by=sim):
        sites.append(Site(by, *(options or ("-H", by.address("zlg")))))
        return sites[-1]

    yield start
    for site in sites:
        site.end()


@pytest.fixture
def controlled(sim, serve):
    """A hand that may be moved, at a known place."""
    address = sim.address("zlg")
    assert sim.korvane("move", "-H", address, "--to", "4000").status == 0
    return serve("-H", address, "--allow-control")


def hold(site, secret, target, until):
    """Tells again and again that the switch is held, until an event fits."""
    with site.events() as events:
        for event in events:
            assert site.post("1/move", target, secret)[0] == 200
            if until(event):
                return event


def stands_still(site):
    """The positions once nothing is sent any more, and nothing moves for some readings."""
    with site.events() as events:
        last, still = None, 0
        for event in events:
            still = still + 1 if event["positions"] == last and not event["control"]["target"] else 0
            last = event["positions"]
            if still == 15:
                return last


def test_all_models_are_described_and_tell_what_they_have(sim, serve):
    site = serve(*[word for model in MODELS for word in ("-H", sim.address("zlg", model))])
    hands = site.hands()["hands"]
    assert [(h["hand"], h["model"], h["id"]) for h in hands] == [(i, model, i) for model, (i, _) in MODELS.items()]
    assert hands[0]["serial_number"].startswith("SIM") and hands[0]["joints"][6]["name"] == "index_flexion"
    assert [h["motors"] for h in hands] == [10, 12, 0, 4, 20]
    told = {}
    with site.events("/api/events") as events:
        for event in events:
            told[event["hand"]] = event
            if len(told) == 5 and all("touch" in told[i] for i in (1, 2, 3)):
                break
    for model, (i, count) in MODELS.items():
        assert told[i]["state"] == "live" and len(told[i]["positions"]) == count
        assert ("angles" in told[i]) == (model in ("brisa", "tessel"))
        assert ("errors" in told[i]) == (model != "quill")
    assert told[1]["control"] == {"allowed": False, "owner": None, "target": None}
    assert {"rate_hz", "lost", "p99_us", "timeouts"} <= told[1]["link"].keys()
    assert site.end() == (0, "", "")


def test_the_page_comes_whole_and_keeps_to_itself(serve):
    site = serve()
    parts = {"/": 'src="/page.js"', "/page.js": "EventSource", "/control.js": "Control",
             "/style.css": "prefers-color-scheme"}
    for path, part in parts.items():
        status, text, headers = site.ask("GET", path)
        assert status == 200 and part in text
        policy = headers["Content-Security-Policy"]
        assert "default-src 'none'" in policy and "unsafe" not in policy and "frame-ancestors 'none'" in policy
        assert (headers["X-Content-Type-Options"], headers["Cache-Control"]) == ("nosniff", "no-store")
        assert headers["Referrer-Policy"] == "no-referrer" and "Access-Control-Allow-Origin" not in headers


@pytest.mark.parametrize(
    "method, path, headers, status",
    [
        ("GET", "/", {"Host": "evil.example"}, 403),
        ("GET", "/api/hands", {"Host": "evil.example:PORT"}, 403),
        ("GET", "/api/hands", {"Host": "127.0.0.2:PORT"}, 403),
        ("GET", "/api/hands", {"Host": "127.0.0.1:1"}, 403),
        ("GET", "/api/hands", {"Host": "localhost:PORT"}, 200),
        ("GET", "/api/hands", {"Origin": "http://evil.example"}, 403),
        ("GET", "/api/hands", {"Origin": "null"}, 403),
        ("GET", "/api/hands/1/events", {"Origin": "http://127.0.0.1:1"}, 403),
        ("GET", "/api/hands", {"Origin": "http://127.0.0.1:PORT"}, 200),
        ("GET", "/api/hands/1/events?page=of-an-earlier-run", {}, 409),
        ("GET", "/api/events?page=of-an-earlier-run", {}, 409),
        ("GET", "/api/hands/2/events", {}, 404),
        ("GET", "/api/hands/x/events", {}, 404),
        ("GET", "/api/hands/1.0/events", {}, 404),
        ("GET", "/../../etc/passwd", {}, 404),
        ("POST", "/api/hands", {}, 405),
        ("PUT", "/api/hands/1/move", {}, 405),
        ("GET", "/api/hands/1/move", {}, 405),
        ("POST", "/api/hands/1/move", {}, 403),  # no --allow-control
        ("GET", "/", {"A": "b" * 20000}, 431),
        ("GET", "/", {"Transfer-Encoding": "chunked"}, 411),
        ("GET", "/", {"Content-Length": "-1"}, 400),
        ("GET", "/", {"Content-Length": "9" * 40}, 413),
    ],
)
def test_requests_that_are_refused(serve, method, path, headers, status):
    site = serve()
    headers = {name: value.replace("PORT", str(site.port)) for name, value in headers.items()}
    assert site.ask(method, path, None, **headers)[0] == status


@pytest.mark.parametrize(
    "request_line, headers, closes",
    [
        ("GET / HTTP/1.1", "Connection: Close", True),
        ("GET / HTTP/1.1", "Connection: keep-alive, close", True),
        ("GET / HTTP/1.0", "", True),
        ("GET / HTTP/1.1", "", False),
        ("HEAD / HTTP/1.1", "", False),
    ],
)
def test_a_connection_is_kept_for_those_who_use_it_again(serve, request_line, headers, closes):
    site = serve()
    asked = "\r\n".join(filter(None, [request_line, f"Host: {site.netloc}", headers])) + "\r\n\r\n"
    with socket.create_connection((site.host, site.port), LIMIT) as raw:
        answers = raw.makefile("rb")
        for _ in range(1 if closes else 2):
            raw.sendall(asked.encode())
            assert answers.readline().startswith(b"HTTP/1.1 ")
            told = dict(line.decode().strip().split(": ", 1) for line in iter(answers.readline, b"\r\n"))
            answers.read(int(told["Content-Length"]))
        assert told["Connection"] == ("close" if closes else "keep-alive")
        assert not closes or answers.read() == b""


@pytest.mark.parametrize(
    "bytes_",
    [
        b"GET / HTTP/1.1\r\nHost: HOST\r\nHost: HOST\r\n\r\n",
        b"GET http://HOST/ HTTP/1.1\r\nHost: HOST\r\n\r\n",
        b"GET / HTTP/2.0\r\nHost: HOST\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: HOST\r\nA: b\r\n c\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost: HOST\nA: b\r\n\r\n",
        b"GET / HTTP/1.1\r\nHost : HOST\r\n\r\n",
        b"\x16\x03\x01\x02\x00\x01\r\n\r\n",
        b"\r\n\r\n",
    ],
)
def test_what_two_readers_might_take_differently_is_no_request(serve, bytes_):
    site = serve()
    with socket.create_connection((site.host, site.port), LIMIT) as raw:
        raw.sendall(bytes_.replace(b"HOST", site.netloc.encode()))
        assert raw.recv(12) == b"HTTP/1.1 400"


def test_who_binds_to_an_address_needs_the_token(sim, serve):
    site = serve("-H", sim.address("zlg"), "--bind", "127.0.0.1")
    assert len(site.token) == 32
    for path in ("/", "/page.js", "/api/hands", "/api/hands/1/events", f"/?token={'0' * 32}", "/?token="):
        assert site.ask("GET", path)[0] == 401, path
    assert site.ask("GET", "/api/hands", Authorization=f"Bearer {site.token}")[0] == 200
    assert site.ask("GET", "/api/hands", Authorization=f"Bearer {site.token[:-1]}")[0] == 401
    status, _, headers = site.ask("GET", f"/?token={site.token}")
    cookie, *attributes = headers["Set-Cookie"].split("; ")
    assert (status, headers["Location"]) == (303, "/") and {"HttpOnly", "SameSite=Strict"} <= set(attributes)
    assert site.token not in cookie
    assert site.ask("GET", "/", Cookie=f"a=b; {cookie}")[0] == 200
    assert site.ask("GET", "/", Cookie=cookie[:-1])[0] == 401
    assert "not encrypted" in site.end()[2]


@pytest.mark.parametrize(
    "options, status, text",
    [
        (["--bind", "example.org"], 2, "isn't one IPv4 or IPv6 address"),
        (["--bind", "0.0.0.0"], 2, "isn't one IPv4 or IPv6 address"),
        (["--bind", "::0"], 2, "isn't one IPv4 or IPv6 address"),
        (["--bind", "192.0.2.1"], 1, "192.0.2.1"),
        (["--rate", "1000"], 2, "--rate"),
        (["-H", "zlg:0.0:brisa:1"], 2, "more than once"),
        (["-H", "zlg:0.0:brisa:9"], 4, "no hand with id 9"),
    ],
)
def test_what_makes_no_sense_is_not_served(sim, options, status, text):
    told = sim.korvane("serve", "--port", "0", "-H", sim.address("zlg"), *options)
    assert (told.status, told.out) == (status, "") and text in told.err


def test_a_hand_goes_where_its_owner_says_and_only_while_the_switch_is_held(controlled):
    status, ticket = controlled.post("1/control", {"action": "take"})
    assert status == 200
    goal = {"motors": {"3": 0}}
    event = hold(controlled, ticket["control"], goal, lambda e: e["positions"][2] < 3900 and e["control"]["target"])
    assert event["control"]["owner"] == ticket["owner"] and event["control"]["target"][2] == 0
    # The switch isn't told to be held any more: the hand stops on its way.
    stopped = stands_still(controlled)
    assert 0 < stopped[2] < 3900 and stopped[:2] == [4000, 4000]
    # Released in so many words, it stops as well.
    hold(controlled, ticket["control"], goal, lambda e: e["positions"][2] < stopped[2] - 100)
    assert controlled.post("1/stop", {}, ticket["control"])[0] == 200
    assert controlled.event(lambda e: e["control"]["target"] is None)
    hold(controlled, ticket["control"], goal, lambda e: e["positions"][2] == 0)


@pytest.mark.parametrize(
    "target, status, text",
    [
        ({"motors": {"11": 5}}, 400, "motors 1 to 10"),
        ({"motors": {"1.0": 5}}, 400, "motors 1 to 10"),
        ({"motors": {"3": 4097}}, 400, "beyond the limits"),
        ({"motors": {"3": -1}}, 400, "beyond the limits"),
        ({"motors": {"3": "5"}}, 400, "beyond the limits"),
        ({"motors": {"3": None}}, 400, "beyond the limits"),
        ({"motors": 5}, 400, "expected one of"),
        ({"positions": [1, 2]}, 400, "10 motors"),
        ({"positions": [1e300] * 10}, 400, "beyond the limits"),
        ({"joints": {"index_flexion": 3}}, 400, "beyond the limits"),
        ({"joints": {"index_distal": 0.1}}, 400, "can't be commanded"),
        ({"joints": {"nose": 0.1}}, 400, "no joint nose"),
        ({"gesture": 17}, 400, "gestures 0 to 16"),
        ({"gesture": -1}, 400, "gestures 0 to 16"),
        ({"gesture": 1e18}, 400, "expected one of"),
        ({"gesture": 1, "motors": {}}, 400, "expected one of"),
        ({}, 400, "expected one of"),
        ([1], 400, "no JSON object"),
        ({"joints": {"index_flexion": 0.8}}, 200, None),
        ({"gesture": 16}, 200, None),
    ],
)
def test_the_server_checks_every_limit_itself(controlled, target, status, text):
    secret = controlled.post("1/control", {"action": "take"})[1]["control"]
    told = controlled.post("1/move", target, secret)
    assert told[0] == status and (text is None or text in told[1]["error"]["text"])


def test_changes_need_the_page_its_origin_and_the_owner(controlled):
    take, path = json.dumps({"action": "take"}), "/api/hands/1/control"
    right = controlled.page_headers()
    for wrong, status in (
        ({"X_Korvane_Page": "0" * 32}, 403),
        ({"X_Korvane_Page": ""}, 403),
        ({"Content_Type": "text/plain"}, 415),
        ({"Origin": "http://evil.example"}, 403),
        ({"Sec_Fetch_Site": "cross-site"}, 403),
    ):
        assert controlled.ask("POST", path, take, **{**right, **wrong})[0] == status, wrong
    refused = {"": 400, "[]": 400, "{": 400, "[" * 60000: 400, '{"action": "fly"}': 400, "x" * 70000: 413}
    for body, status in refused.items():
        assert controlled.ask("POST", path, body, **right)[0] == status, body[:10]
    first = controlled.post("1/control", {"action": "take"})[1]
    assert controlled.post("1/control", {"action": "take"})[0] == 409
    for secret in ("", "0" * 32, first["control"][:-1]):
        assert controlled.post("1/move", {"gesture": 1}, secret)[0] == 409
        assert controlled.post("1/control", {"action": "give_up"}, secret)[0] == 409
    assert controlled.event(lambda e: e["control"]["owner"] == first["owner"])
    assert controlled.post("1/control", {"action": "keep"}, first["control"])[0] == 200
    # Who isn't heard of any more has it no longer, and can't take it up again.
    controlled.event(lambda e: e["control"]["owner"] is None)
    second = controlled.post("1/control", {"action": "take"})[1]
    assert second["owner"] != first["owner"] and controlled.post("1/move", {"gesture": 1}, first["control"])[0] == 409
    assert controlled.post("1/control", {"action": "give_up"}, second["control"])[0] == 200
    assert controlled.post("1/control", {"action": "take"})[0] == 200


def test_a_hand_without_motors_moves_nowhere(sim, serve):
    site = serve("-H", sim.address("zlg", "quill"), "--allow-control")
    secret = site.post("1/control", {"action": "take"})[1]["control"]
    assert site.post("1/move", {"positions": [0] * 10}, secret)[0] == 400


def test_a_hand_that_is_unplugged_shows_and_comes_back_without_an_owner(make_sim, serve):
    sim = make_sim("--serial-unplug-after=150", "--serial-replug-ms=3000", serial=True)
    site = serve("-H", sim.address("serial"), "--allow-control", by=sim)
    assert site.post("1/control", {"action": "take"})[0] == 200
    with site.events() as events:
        last = next(event for event in events if event["state"] == "live")
        for event in events:
            if event["state"] == "gone":
                break
            last = event
        assert event["time_s"] - last["time_s"] < 1 and event["failure"]["kind"] and "positions" not in event
        assert event["control"]["owner"] is None
        assert site.post("1/control", {"action": "take"})[0] == 200
        assert next(event for event in events if event["state"] == "live")["control"]["owner"] is None


@pytest.fixture
def updated(make_sim, tmp_path):
    """A hand, and what starts an update of it by another program. Slow enough to be seen."""
    sim = make_sim("--delay-ms=20", "--restart-ms=300", serial=False)
    sim.env["XDG_RUNTIME_DIR"] = str(tmp_path)
    image = tmp_path / "image.bin"
    image.write_bytes(bytes(40 * 2048))
    options = ("-H", sim.address("zlg"), "--yes", "--expect", "1.1.0", "--timeout", "1000")
    return sim, lambda: sim.start("update", image, *options)


@pytest.mark.parametrize("killed", [False, True])
def test_an_update_by_another_program_is_shown_and_left_alone(updated, serve, killed):
    sim, update = updated
    site = serve("-H", sim.address("zlg"), by=sim)
    with site.events() as events:
        assert next(events)["state"] == "live"
        process = update()
        event = next(event for event in events if event["state"] == "updating")
        while event["update"]["done"] < 10:
            event = next(events)
        assert event["update"]["total"] == 40 and "failure" not in event
        assert "requests" not in event["link"]  # the hand is closed
        if killed:
            process.kill()
        while event["state"] == "updating":
            event = next(events)
        process.communicate(timeout=LIMIT)
        if not killed:
            assert next(event for event in events if event["state"] == "live")["positions"]
            assert site.hands()["hands"][0]["firmware"] == "1.1.0"


def test_another_hand_in_its_place_is_not_taken_for_it(make_sim, serve):
    sim = make_sim("--hand=brisa:1", "--hand=brisa:2", serial=False)
    site = serve("-H", sim.address("zlg"), by=sim)
    assert site.event()["state"] == "live"
    sim.restart("--hand=tessel:1")
    gone = site.event(lambda e: e["state"] == "gone" and "tessel" in e["failure"]["text"])
    assert gone["control"]["owner"] is None
    sim.restart("--hand=brisa:1")
    assert site.event(lambda e: e["state"] == "live")["positions"]


def test_a_large_body_is_refused_before_it_is_read(controlled):
    assert controlled.ask("POST", "/api/hands/1/move", b"x" * 10_000_000, **controlled.page_headers())[0] == 413


def test_slow_clients_cost_the_others_nothing(serve):
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (min(hard, 4096), hard))
    site = serve()
    with contextlib.ExitStack() as stack, site.events() as events:
        first = next(events)
        for i in range(1000):
            slow = stack.enter_context(socket.create_connection((site.host, site.port), LIMIT))
            slow.sendall(b"GET /api/events HTTP/1.1\r\nHost: " if i % 2 else b"")
        # Those that take nothing of a stream, as many as there may be, and one more.
        streams = [stack.enter_context(socket.create_connection((site.host, site.port), LIMIT)) for _ in range(32)]
        for stream in streams:
            stream.sendall(f"GET /api/events HTTP/1.1\r\nHost: {site.netloc}\r\n\r\n".encode())
        assert [stream.recv(12) for stream in streams].count(b"HTTP/1.1 503") == 1
        assert site.ask("GET", "/api/hands")[0] == 200
        later = next(event for event in events if event["time_s"] > first["time_s"] + 2)
    assert later["link"]["readings"] > first["link"]["readings"]
    began = time.monotonic()
    assert site.end()[0] == 0 and time.monotonic() - began < LIMIT / 2
    resource.setrlimit(resource.RLIMIT_NOFILE, (soft, hard))


def test_who_comes_when_no_more_files_may_be_opened_is_told(serve):
    site = serve()
    with site.events() as events:
        next(events)
        # The next file is too many. The only client watches, so that it isn't closed for another.
        soft, hard = resource.prlimit(site.process.pid, resource.RLIMIT_NOFILE)
        opened = os.listdir(f"/proc/{site.process.pid}/fd")
        next_file = min(set(range(len(opened) + 1)) - {int(file) for file in opened})
        resource.prlimit(site.process.pid, resource.RLIMIT_NOFILE, (next_file, hard))
        for _ in range(3):
            assert site.ask("GET", "/api/hands")[0] == 503
        assert next(events)["state"] == "live"
        resource.prlimit(site.process.pid, resource.RLIMIT_NOFILE, (soft, hard))
        assert site.ask("GET", "/api/hands")[0] == 200
