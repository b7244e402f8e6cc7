"""Helpers for the JSON and metrics process tests: the show text rebuilt
from the JSON document (so that the two forms can be compared), an HTTP
fetch, promtool, and a Prometheus server of the test's own on loopback."""

import json
import os
import shutil
import signal
import subprocess
import urllib.error
import urllib.parse
import urllib.request

from bus_helpers import free_port
from stovig_proc import wait_for

PROMTOOL = shutil.which("promtool")
PROMETHEUS = shutil.which("prometheus")
RULE = "===============================================\n"


def _status(entry):
    return "Warning" if entry["status"] == "warning" else "Normal"


def _head(s, titled, title, dashes, closed, not_ready):
    """(text, whole) of a section's title and rule; whole when the monitor is
    closed or not ready and that line ends the section."""
    out = (title + "\n" if titled else "") + "-" * dashes + "\n"
    if s["state"] == "closed":
        return out + closed + "\n\n", True
    if s["state"] == "not_ready":
        return out + not_ready + "\n\n", True
    return out, False


def _io(s, titled):
    out, whole = _head(s, titled, "Storage I/O information:", 63, " Storage I/O monitor is closed.",
                       " Storage  I/O is not ready, please wait and try again.")
    if whole:
        return out
    out += " Device      Read(KB/S)      Write(KB/S)      Util      Status\n"
    for d in s["disks"]:
        out += " %-10s  %9.2f   %14.2f    %6.2f%%%12s\n" % (d["name"], d["read_kb_per_s"], d["write_kb_per_s"],
                                                         d["util_percent"], _status(d))
    out += "\n"
    procs = s["processes"]
    if procs["state"] == "not_ready":
        out += " Process I/O information is not ready, please wait and try again.\n"
    else:
        out += " PID      Read(B/S)      Write(B/S)             Process\n"
        for p in procs["entries"]:
            out += " %-5d %11.2f  %14.2f     %16s\n" % (p["pid"], p["read_bytes_per_s"], p["write_bytes_per_s"],
                                                     p["name"])
    return out + "\n"


def _ro(s, titled):
    out, whole = _head(s, titled, "Storage read-only information:", 22, " Storage ro monitor is closed.",
                       " Storage ro is not ready, please wait and try again.")
    if whole:
        return out
    out += " Name          Status\n"
    for p in s["partitions"]:
        out += " %-8s     %7s\n" % (p["name"], "R" if p["mode"] == "read-only" else "R/W")
    return out + "\n"


def _capacity(s, titled):
    out, whole = _head(s, titled, "Storage cpacity information:", 62, " Storage capacity monitor is closed.",
                       " Storage capacity is not ready, please wait and try again.")
    if whole:
        return out
    out += " Name       Total(KB)       Used(KB)    Used Rate      Status\n"
    for p in s["partitions"]:
        rate = p["used_percent"] if p["used_percent"] is not None else float("nan")
        out += " %-8s%11d    %11d       %6.2f%%  %10s\n" % (p["name"], p["total_kb"], p["used_kb"], rate, _status(p))
    return out + "\n"


def _lifetime(s, titled):
    out = "Storage lifetime information:\n" if titled else ""
    if s["state"] == "closed":
        return out + "Storage lifetime monitor is closed.\n\n"
    if s["state"] == "not_supported":
        return out + "Storage lifetime monitor is not support.\n\n"
    if s["state"] == "not_ready":
        return out + "Storage lifetime is not ready, please wait and try again.\n\n"
    for d in s["disks"]:
        out += "Storage Name:               %s\n" % d["name"]
        out += "Storage Lifetime Left:      %d month%s\n" % (d["left_months"], "" if d["left_months"] == 1 else "s")
        out += "Storage Lifetime Threshold: %d month%s\n" % (d["threshold_months"],
                                                           "" if d["threshold_months"] == 1 else "s")
        out += "Storage Status:             %s\n" % _status(d)
    return out + "\n"


def text_from_json(doc):
    """The "show storage" text that the JSON document stands for (the item
    is read from which sections the nodes carry)."""
    if not doc:
        return "No data avalible.\n"
    out = ""
    for node in doc:
        titled = all(k in node for k in ("io", "readonly", "capacity", "lifetime"))
        out += RULE + "[%s : %s]\n\n" % (node["slot"], node["card"])
        for key, render in (("io", _io), ("readonly", _ro), ("capacity", _capacity), ("lifetime", _lifetime)):
            if key in node:
                out += render(node[key], titled)
        out += "\n"
    return out


def fetch(url, method="GET", timeout=10):
    """(status, headers, body as bytes) of one request."""
    req = urllib.request.Request(url, method=method)
    try:
        with urllib.request.urlopen(req, timeout=timeout) as r:
            return r.status, dict(r.headers), r.read()
    except urllib.error.HTTPError as e:
        return e.code, dict(e.headers), e.read()


def promtool_check(text):
    """(exit status, output) of `promtool check metrics` on the exposition."""
    p = subprocess.run([PROMTOOL, "check", "metrics"], input=text, capture_output=True, timeout=60)
    return p.returncode, (p.stdout + p.stderr).decode(errors="replace")


def samples(text):
    """{(name, frozenset of label pairs): value} of an exposition whose label
    values hold no comma, quote or brace (the tests' names)."""
    out = {}
    for line in text.splitlines():
        if not line or line.startswith("#"):
            continue
        series, value = line.rsplit(" ", 1)
        labels = frozenset()
        if "{" in series:
            name, rest = series.split("{", 1)
            pairs = [kv.split("=", 1) for kv in rest.rstrip("}").split(",") if kv]
            labels = frozenset((k, v.strip('"')) for k, v in pairs)
        else:
            name = series
        out[(name, labels)] = float(value)
    return out


class PrometheusServer:
    """A Prometheus server on a free loopback port with its own storage
    directory, scraping one target every second."""

    def __init__(self, base, target):
        self.dir = os.path.join(base, "prometheus")
        os.makedirs(os.path.join(self.dir, "data"), exist_ok=True)
        self.port = free_port()
        self.config = os.path.join(self.dir, "prometheus.yml")
        with open(self.config, "w") as f:
            f.write("global:\n  scrape_interval: 1s\n  scrape_timeout: 1s\n"
                    "scrape_configs:\n  - job_name: stovig\n    static_configs:\n"
                    "      - targets: ['%s']\n" % target)
        self.proc = None

    def start(self):
        log = open(os.path.join(self.dir, "prometheus.log"), "wb")
        self.proc = subprocess.Popen(
            [PROMETHEUS, "--config.file=" + self.config, "--storage.tsdb.path=" + os.path.join(self.dir, "data"),
             "--web.listen-address=127.0.0.1:%d" % self.port, "--storage.tsdb.retention.time=1h"],
            stdout=log, stderr=log, start_new_session=True)
        log.close()
        return wait_for(self.ready, timeout=60, interval=0.2)

    def ready(self):
        try:
            return fetch("http://127.0.0.1:%d/-/ready" % self.port, timeout=2)[0] == 200
        except OSError:
            return False

    def query(self, expr):
        """The result list of an instant query, or None on failure."""
        url = "http://127.0.0.1:%d/api/v1/query?%s" % (self.port, urllib.parse.urlencode({"query": expr}))
        try:
            status, _, body = fetch(url, timeout=5)
        except OSError:
            return None
        if status != 200:
            return None
        doc = json.loads(body)
        return doc["data"]["result"] if doc.get("status") == "success" else None

    def log_text(self):
        try:
            with open(os.path.join(self.dir, "prometheus.log"), errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def stop(self):
        if self.proc and self.proc.poll() is None:
            os.killpg(self.proc.pid, signal.SIGTERM)
            try:
                self.proc.wait(timeout=20)
            except subprocess.TimeoutExpired:
                os.killpg(self.proc.pid, signal.SIGKILL)
                self.proc.wait(timeout=10)
        self.proc = None
