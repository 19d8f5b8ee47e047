"""Clients as bad as they come, each in a process of its own, and an honest one
beside them; scripts/endurance --hostile plays them."""

import base64
import http.client
import json
import multiprocessing
import os
import random
import signal
import socket
import struct
import time

MESSAGE = 4 << 20  # bytes, as large as the host takes
DESCRIBED = ("ZBBehaviorManager", "ZBMemory", "PackageManager", "RunHistory", "ZBFrameManager")


def request(method, *params, number=1):
    return {"jsonrpc": "2.0", "id": number, "method": method, "params": params}


class WebSocket:
    """As much of one as it takes: whole texts out, whole frames in."""

    def __init__(self, place, token):
        address, port = place.rsplit(":", 1)
        self.socket = socket.create_connection((address, int(port)), timeout=60)
        key = base64.b64encode(random.randbytes(16)).decode()
        self.socket.sendall((f"GET /rpc HTTP/1.1\r\nHost: {place}\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                             f"Sec-WebSocket-Version: 13\r\nSec-WebSocket-Key: {key}\r\nAuthorization: Bearer {token}\r\n\r\n").encode())
        self.stream = self.socket.makefile("rb")
        if b" 101 " not in self.stream.readline():
            raise ConnectionError("no WebSocket is given")
        while self.stream.readline() not in (b"\r\n", b""):
            pass

    def send(self, text):
        data = text.encode()
        length = bytes([0x80 | len(data)]) if len(data) < 126 else b"\xfe" + struct.pack(">H", len(data)) if len(data) < 65536 else b"\xff" + struct.pack(">Q", len(data))
        self.socket.sendall(b"\x81" + length + bytes(4) + data)  # a mask of zeros leaves the text as it is

    def receive(self):
        kind, length = self.stream.read(2)
        if length >= 126:
            length = int.from_bytes(self.stream.read(2 if length == 126 else 8), "big")
        self.stream.read(length)
        if kind & 15 == 8:
            raise ConnectionError("the host closed the WebSocket")


def post(place, token, body):
    connection = http.client.HTTPConnection(place, timeout=60)
    connection.request("POST", "/rpc", body, {"Authorization": "Bearer " + token})
    connection.getresponse().read()
    connection.close()


def long_batches(place, token):
    post(place, token, json.dumps([request("session.describe", DESCRIBED[0])] * 50_000))
    post(place, token, json.dumps([request("session.describe", name) for name in DESCRIBED * 20]))


def thousands_of_calls(place, token):
    crowd = [WebSocket(place, token) for _ in range(20)]
    for client in crowd:
        for number in range(1000):
            client.send(json.dumps(request("ZBBehaviorManager.getInstalledBehaviors", number=number)))
    for client in crowd:
        for _ in range(1000):
            client.receive()
        client.socket.close()


def unread_sockets(place, token):
    clients = [WebSocket(place, token) for _ in range(30)]
    descriptions = json.dumps([request("session.describe", name) for name in DESCRIBED * 20])
    end = time.monotonic() + 20
    for client in clients:
        client.socket.settimeout(1)
        client.send(json.dumps(request("session.subscribe", "*")))
    while time.monotonic() < end and clients:
        for client in list(clients):
            try:
                client.send(descriptions)
            except OSError:
                pass  # the host reads nothing more of it: what it waits for
        time.sleep(0.1)


def refused_requests(place, token):
    address, port = place.rsplit(":", 1)
    with socket.create_connection((address, int(port)), timeout=5) as stranger:
        stranger.sendall((f"GET /{'x' * 4000} HTTP/1.1\r\nHost: {'e' * 8000}\r\n\r\n" * 50).encode())
        while stranger.recv(65536):
            pass


def deep_messages(place, token):
    post(place, token, '{"jsonrpc":"2.0","id":1,"method":"ZBMemory.insertData","params":["k",[' + "[]," * (MESSAGE // 3 - 100) + "[]]]}")


def endless_chunks(place, token):
    address, port = place.rsplit(":", 1)
    with socket.create_connection((address, int(port)), timeout=5) as client:
        client.sendall(f"POST /rpc HTTP/1.1\r\nHost: {place}\r\nAuthorization: Bearer {token}\r\nTransfer-Encoding: chunked\r\n\r\n".encode())
        for _ in range(1000):
            client.sendall(b"1;" + b"x" * 8000 + b"\r\n \r\n")


def many_sockets(place, token):
    held = []
    try:
        for _ in range(600):
            held.append(WebSocket(place, token))
            held[-1].send(json.dumps(request("session.subscribe", "*")))
    except (OSError, ConnectionError):
        pass
    time.sleep(5)
    for client in held:
        client.socket.close()


ACTS = (long_batches, thousands_of_calls, unread_sockets, refused_requests, deep_messages, endless_chunks, many_sockets)


def repeat(act, place, token):
    signal.signal(signal.SIGTERM, signal.SIG_DFL)
    os.nice(10)  # it is the host that is measured, not who gets the processor
    while True:
        try:
            act(place, token)
        except (OSError, ConnectionError, http.client.HTTPException, ValueError):
            time.sleep(0.05)  # the host has had enough of this client


def start(place, tokens):
    """`tokens` gives an observer's for each."""
    processes = [multiprocessing.Process(target=repeat, args=(act, place, tokens[act.__name__]), daemon=True) for act in ACTS]
    for process in processes:
        process.start()
    return processes


def end(processes):
    for process in processes:
        process.terminate()
    for process in processes:
        process.join()


class Honest:
    """Asks, waits for the answer, and asks again; connects anew each second. In a
    process of its own, so that its waits are the host's and nobody else's."""

    def __init__(self, place, token):
        self.place, self.token, self.waits, self.failure, self.process = place, token, [], "", None

    def resume(self):
        self.pipe, other = multiprocessing.Pipe()
        self.process = multiprocessing.Process(target=self.play, args=(other,), daemon=True)
        self.process.start()

    def pause(self):
        if not self.process:
            return
        self.pipe.send("enough")
        waits, failure = self.pipe.recv()
        self.process.join()
        self.process = None
        self.waits += waits
        self.failure = self.failure or failure

    def play(self, pipe):
        waits, failure = [], ""
        try:
            while not pipe.poll():
                self.ask(waits, 1)
        except (OSError, RuntimeError, http.client.HTTPException) as error:
            failure = f"an honest client is not served: {error!r}"
        pipe.send((waits, failure))

    def ask(self, waits, seconds):
        body = json.dumps(request("ZBBehaviorManager.getRunningBehaviors"))
        connection = http.client.HTTPConnection(self.place, timeout=60)
        end = time.monotonic() + seconds
        while time.monotonic() < end:
            for line in (("POST", "/rpc", body), ("GET", "/healthz", None)):
                began = time.monotonic()
                connection.request(*line, {"Authorization": "Bearer " + self.token})
                response = connection.getresponse()
                response.read()
                if response.status != 200:
                    raise RuntimeError(f"answered with {response.status}")
                waits.append(time.monotonic() - began)
            time.sleep(0.005)
        connection.close()

    def quantiles(self):
        """Milliseconds: half of the answers, 99 in 100, the last."""
        waits = sorted(self.waits) or [float("inf")]
        return [1000 * waits[min(int(len(waits) * share), len(waits) - 1)] for share in (0.5, 0.99, 1)]
