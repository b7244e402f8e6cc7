"""The operator shell (qn-stovig-cli) and the bus tool (qn-bus) of the build
under test, run the way the process tests run them."""
import os
import subprocess

from stovig_proc import BIN_DIR

SHELL = os.path.join(BIN_DIR, "platform", "tools", "qn-stovig-cli", "qn-stovig-cli")
QN_BUS = os.path.join(BIN_DIR, "platform", "tools", "qn-bus", "qn-bus")


def cli(env, *commands, stdin=None, timeout=20, errors="strict", text=False):
    """qn-stovig-cli with one -c per command: (status, stdout, stderr).
    `errors` is how undecodable output bytes are taken (strict: they fail
    the test); `text` reads the output in text mode instead."""
    args = [SHELL]
    for c in commands:
        args += ["-c", c]
    if text:
        p = subprocess.run(args, env=env, capture_output=True, text=True, timeout=timeout, input=stdin)
        return p.returncode, p.stdout, p.stderr
    p = subprocess.run(args, env=env, capture_output=True, timeout=timeout, input=stdin)
    return p.returncode, p.stdout.decode(errors=errors), p.stderr.decode(errors=errors)


def bus(config, *args, timeout=30):
    """qn-bus with STOVIG_CONFIG=config: the finished process."""
    env = dict(os.environ, STOVIG_CONFIG=config)
    return subprocess.run([QN_BUS] + [str(a) for a in args], env=env, capture_output=True, timeout=timeout)


def bus_ok(config, *args):
    """qn-bus that must succeed: its standard output."""
    p = bus(config, *args)
    if p.returncode != 0:
        raise AssertionError("qn-bus %s: %s" % (" ".join(map(str, args)), p.stderr.decode()))
    return p.stdout.decode()
