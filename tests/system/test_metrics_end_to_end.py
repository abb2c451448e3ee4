"""The chassis in the operators' monitoring, end to end, with Debian's
node_exporter and Prometheus on loopback: chmgrctl metrics --textfile
collected in a loop as the timer does, node_exporter's textfile collector
serving it, Prometheus scraping every second with the shipped alerting
rules (their `for:` shortened).  One card goes into service, one is given
up; then the daemon stops."""

import re
import threading

import pytest

from chmgrctl_support import chmgrctl, show_slot
from conftest import REPO, start_listening, timeout_factor, wait_until
from metrics_support import (NODE_EXPORTER, PROMETHEUS, Server, api, free_port, require, wait_http)

RULES = REPO / "packaging" / "prometheus" / "chassis-mgr-alerts.yml"
FOR_SECONDS = 2
COLLECT_EVERY_S = 0.5


class Collector:
    """Runs `chmgrctl metrics --textfile PATH` every COLLECT_EVERY_S until
    stopped (and at most for `limit_s`), like the packaged timer."""

    def __init__(self, sandbox, path, limit_s):
        self.sandbox = sandbox
        self.path = path
        self.limit_s = limit_s
        self.stopped = threading.Event()
        self.failures = []
        self.runs = 0
        self.thread = threading.Thread(target=self.loop, daemon=True)
        self.thread.start()

    def loop(self):
        rounds = int(self.limit_s / COLLECT_EVERY_S)
        for _ in range(rounds):
            result = chmgrctl(self.sandbox, "metrics", "--textfile", self.path)
            self.runs += 1
            if result.returncode != 0:
                self.failures.append(result)
            if self.stopped.wait(COLLECT_EVERY_S):
                return

    def stop(self):
        self.stopped.set()
        self.thread.join(30 * timeout_factor())


def start_server(make_args, log_path, cwd, what, health_path):
    """Starts a server on a free loopback port; tries another port when the
    one chosen was taken meanwhile.  Returns (server, base URL)."""
    for _ in range(3):
        port = free_port()
        server = Server(make_args(port), log_path, cwd)
        base = f"http://127.0.0.1:{port}"
        try:
            wait_http(base + health_path, server, what)
            return server, base
        except pytest.fail.Exception:
            server.stop()
            if "address already in use" not in server.log():
                raise
    pytest.fail(f"{what} found no free port", pytrace=False)


def shortened_rules(target):
    """The shipped rules with every `for:` cut to FOR_SECONDS."""
    text = RULES.read_text()
    shortened, count = re.subn(r"^(\s+for:) \S+$", rf"\1 {FOR_SECONDS}s", text, flags=re.M)
    assert count >= 6, "the rules file lost its for: clauses"
    target.write_text(shortened)


def prometheus_config(path, rules, node_port):
    path.write_text(
        "global:\n"
        "  scrape_interval: 1s\n"
        "  scrape_timeout: 1s\n"
        "  evaluation_interval: 1s\n"
        f"rule_files: ['{rules}']\n"
        "scrape_configs:\n"
        "  - job_name: node\n"
        "    static_configs:\n"
        f"      - targets: ['127.0.0.1:{node_port}']\n")


def query(base, expr):
    """{labels without __name__ as a sorted tuple: value} of an instant query."""
    result = api(base, "/api/v1/query", query=expr)["result"]
    return {tuple(sorted((k, v) for k, v in r["metric"].items() if k != "__name__")): float(r["value"][1])
            for r in result}


def firing(base):
    """{(alertname, slot or None)} of the alerts firing now."""
    return {(a["labels"]["alertname"], a["labels"].get("slot")) for a in api(base, "/api/v1/alerts")["alerts"]
            if a["state"] == "firing"}


def only_value(base, expr):
    values = query(base, expr)
    return next(iter(values.values())) if len(values) == 1 else None


@pytest.fixture
def monitoring(sandbox):
    """node_exporter and Prometheus on loopback, reading the sandbox's
    textfile directory; yields (textfile path, Prometheus base URL)."""
    require(PROMETHEUS, NODE_EXPORTER)
    textfiles = sandbox.base / "node-exporter"
    textfiles.mkdir()
    servers = []
    try:
        node, node_base = start_server(
            lambda port: [NODE_EXPORTER, f"--web.listen-address=127.0.0.1:{port}", "--collector.disable-defaults",
                          "--collector.textfile", f"--collector.textfile.directory={textfiles}"],
            sandbox.base / "node_exporter.log", sandbox.base, "node_exporter", "/metrics")
        servers.append(node)
        rules = sandbox.base / "rules.yml"
        shortened_rules(rules)
        config = sandbox.base / "prometheus.yml"
        prometheus_config(config, rules, node_base.rsplit(":", 1)[1])
        prometheus, prometheus_base = start_server(
            lambda port: [PROMETHEUS, f"--config.file={config}", f"--storage.tsdb.path={sandbox.base / 'tsdb'}",
                          f"--web.listen-address=127.0.0.1:{port}"],
            sandbox.base / "prometheus.log", sandbox.base, "Prometheus", "/-/ready")
        servers.append(prometheus)
        yield textfiles / "chassis_mgr.prom", prometheus_base
    finally:
        for server in reversed(servers):
            server.stop()


def test_card_in_service_stuck_card_and_stopped_daemon_in_prometheus(sandbox, daemon, monitoring):
    textfile, prometheus = monitoring
    handle = start_listening(sandbox, daemon)
    collector = Collector(sandbox, textfile, limit_s=300 * timeout_factor())
    try:
        sandbox.start_emulator("--slots", "1")  # slot 4's hardware never answers: it is given up
        sandbox.insert(1)
        sandbox.insert(4)
        wait_until(lambda: show_slot(sandbox, 1)["oper_state"] == "Operational", timeout=20,
                   what="slot 1 to be operational")
        wait_until(lambda: show_slot(sandbox, 4)["stuck"], timeout=20, what="slot 4 to be given up")

        wait_until(lambda: only_value(prometheus, 'chassis_mgr_slot_stuck{slot="4"}') == 1, timeout=30,
                   interval=0.2, what="Prometheus to see slot 4 stuck")
        wait_until(lambda: only_value(prometheus, 'chassis_mgr_slot_stage{slot="1"}') == 6, timeout=30,
                   interval=0.2, what="Prometheus to see slot 1 at ACTIVE")
        assert only_value(prometheus, "chassis_mgr_up") == 1
        assert only_value(prometheus, 'chassis_mgr_slot_oper_state{slot="1",state="operational"}') == 1
        assert only_value(prometheus, 'chassis_mgr_slot_oper_state{slot="4",state="offline"}') == 1
        assert only_value(prometheus, 'chassis_mgr_slot_stage{slot="4"}') == 2
        assert only_value(prometheus, 'chassis_mgr_slot_oper_state{slot="2",state="empty"}') == 1
        assert only_value(prometheus, 'chassis_mgr_slot_ports{slot="1"}') == 16
        info = query(prometheus, 'chassis_mgr_slot_info{slot="1"}')
        assert [dict(labels)["serial"] for labels in info] == ["SN00000001"]
        reasons = query(prometheus, 'chassis_mgr_slot_reason_info{slot="4"}')
        assert [dict(labels)["reason"] for labels in reasons] == [show_slot(sandbox, 4)["reason"]]
        assert query(prometheus, 'chassis_mgr_slot_up_since_timestamp_seconds{slot="4"}') == {}
        up_since = only_value(prometheus, 'chassis_mgr_slot_up_since_timestamp_seconds{slot="1"}')
        entered = only_value(prometheus, 'chassis_mgr_slot_stage_entered_timestamp_seconds{slot="1"}')
        assert abs(up_since - entered) <= 2  # both say when the card went into service

        expected = {("ChassisMgrCardStuck", "4"), ("ChassisMgrCardNotInService", "4")}
        wait_until(lambda: expected <= firing(prometheus), timeout=30, interval=0.2,
                   what="the stuck and out-of-service alerts of slot 4")
        assert firing(prometheus) == expected

        handle.kill()
        wait_until(lambda: only_value(prometheus, "chassis_mgr_up") == 0, timeout=30, interval=0.2,
                   what="Prometheus to see the daemon down")
        wait_until(lambda: ("ChassisMgrUnreachable", None) in firing(prometheus), timeout=30, interval=0.2,
                   what="the unreachable alert")
        assert query(prometheus, "chassis_mgr_slot_stuck") == {}  # no slot series without the daemon
        wait_until(lambda: firing(prometheus) == {("ChassisMgrUnreachable", None)}, timeout=30, interval=0.2,
                   what="the slot alerts to resolve")
    finally:
        collector.stop()
    assert collector.failures == []
    assert collector.runs > 0
