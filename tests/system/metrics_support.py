"""Helpers of the metrics tests: reading the Prometheus text format,
promtool, and the operators' tools (node_exporter, Prometheus) run on
loopback for the end-to-end test."""

import json
import re
import shutil
import socket
import subprocess
import time
import urllib.parse
import urllib.request

import pytest

from conftest import timeout_factor

SAMPLE = re.compile(r'^([a-zA-Z_:][a-zA-Z0-9_:]*)(?:\{(.*)\})? (\S+)$')
LABEL = re.compile(r'([a-zA-Z_][a-zA-Z0-9_]*)="((?:[^"\\]|\\.)*)"')
UNESCAPE = {"\\\\": "\\", '\\"': '"', "\\n": "\n"}

PROMTOOL = "promtool"
PROMETHEUS = "prometheus"
NODE_EXPORTER = "prometheus-node-exporter"


def unescape(value):
    return re.sub(r'\\[\\"n]', lambda m: UNESCAPE[m.group(0)], value)


def parse_samples(text):
    """{(name, ((label, value), ...)): value} of an exposition; the label
    pairs in their order in the text."""
    samples = {}
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        match = SAMPLE.match(line)
        assert match, f"not a sample line: {line!r}"
        name, labels, value = match.groups()
        pairs = tuple((k, unescape(v)) for k, v in LABEL.findall(labels or ""))
        samples[(name, pairs)] = float(value)
    return samples


def slot_value(samples, name, slot, **labels):
    """The value of family `name` for `slot` (and the further labels given), None when absent."""
    for (sample_name, pairs), value in samples.items():
        found = dict(pairs)
        if sample_name == name and found.get("slot") == str(slot) and all(
                found.get(k) == v for k, v in labels.items()):
            return value
    return None


def slot_labels(samples, name, slot):
    for (sample_name, pairs), _ in samples.items():
        if sample_name == name and dict(pairs).get("slot") == str(slot):
            return dict(pairs)
    return None


def require(*programs):
    missing = [p for p in programs if shutil.which(p) is None]
    if missing:
        pytest.skip(f"{', '.join(missing)} not installed (Debian packages prometheus and "
                    f"prometheus-node-exporter; scripts/install-deps.sh test installs them)")


def promtool_check_metrics(text):
    """(status, findings) of `promtool check metrics` on `text`."""
    result = subprocess.run([PROMTOOL, "check", "metrics"], input=text, capture_output=True, text=True,
                            timeout=30 * timeout_factor())
    return result.returncode, (result.stdout + result.stderr).strip()


def free_port():
    """A TCP port of 127.0.0.1 that is free now."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as sock:
        sock.bind(("127.0.0.1", 0))
        return sock.getsockname()[1]


def http_get(url, timeout=5.0):
    with urllib.request.urlopen(url, timeout=timeout * timeout_factor()) as response:
        return response.read().decode("utf-8")


def api(base, path, **params):
    """The "data" of a Prometheus HTTP API answer."""
    url = f"{base}{path}" + (f"?{urllib.parse.urlencode(params)}" if params else "")
    answer = json.loads(http_get(url))
    assert answer["status"] == "success", answer
    return answer["data"]


class Server:
    """A long-running program of ours (node_exporter, Prometheus) with its
    output in a file; stopped (SIGTERM, then SIGKILL) by `stop`."""

    def __init__(self, args, log_path, cwd):
        self.log_path = log_path
        with open(log_path, "wb") as log:
            self.proc = subprocess.Popen(args, stdout=log, stderr=subprocess.STDOUT, stdin=subprocess.DEVNULL,
                                         cwd=cwd, start_new_session=True)

    def log(self):
        return self.log_path.read_text(errors="replace")

    def stop(self):
        if self.proc.poll() is None:
            self.proc.terminate()
            try:
                self.proc.wait(10 * timeout_factor())
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()


def wait_http(url, server, what, timeout=30.0):
    """Polls `url` until it answers; fails at once when `server` has ended."""
    deadline = time.monotonic() + timeout * timeout_factor()
    while True:
        if server.proc.poll() is not None:
            pytest.fail(f"{what} exited with {server.proc.returncode}:\n{server.log()[-3000:]}", pytrace=False)
        try:
            return http_get(url, timeout=2.0)
        except OSError:
            pass
        if time.monotonic() >= deadline:
            pytest.fail(f"{what} did not answer at {url}:\n{server.log()[-3000:]}", pytrace=False)
        time.sleep(0.05)
