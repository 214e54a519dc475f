#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Follows docs/strongswan.md, as it is installed, with the daemon as Debian ships it: stock.py --build BUILD, or
--prefix PREFIX for a library that is installed already.

The page's shell blocks are run in their order and its program is built and run, in private namespaces and with a copy
of /etc. Before that, the program is run without the page's set-up, which must fail: the set-up is what makes it work.
"""

import argparse
import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import tempfile

import sandbox

NAME = "default-10.0.0.1-10.0.0.2-local-7"
PROFILE = pathlib.Path("/etc/apparmor.d/usr.lib.ipsec.charon")
OVERRIDE = pathlib.Path("/etc/apparmor.d/local/usr.lib.ipsec.charon")
LOG = pathlib.Path("/run/charon.log")
LOG_CONF = "charon {\n  filelog {\n    log {\n      path = /run/charon.log\n      flush_line = yes\n    }\n  }\n}\n"
BLOCK = re.compile(r"^```(\w+)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
ADDED = (
    "/etc/strongswan.d/ipsec-helpers.conf",
    "/etc/strongswan/ipsec.d/run/charon.pid",
)


def what_is_missing():
    if os.geteuid() != 0:
        return "root rights"
    for program in ("/usr/sbin/ipsec", "/usr/lib/ipsec/starter", "/usr/lib/ipsec/charon", "/usr/lib/ipsec/stroke"):
        if not os.access(program, os.X_OK):
            return f"strongSwan's {program} (packages strongswan-starter, strongswan-charon)"
    for program in ("ip", "mount", "unshare", "g++", "pkg-config", "apparmor_parser"):
        if not shutil.which(program, path=":".join(sandbox.search_path())):
            return f"the program {program}"
    return None


def wait_until(condition, what):
    """A busy machine takes its time."""
    sandbox.wait_until(condition, what, 60)


class Page:
    """The page's blocks, and where they are run."""

    def __init__(self, prefix, folder):
        self.prefix = prefix
        self.folder = folder
        text = (prefix / "share/doc/ipsec-helpers/strongswan.md").read_text()
        blocks = BLOCK.findall(text)
        self.shell = [code for kind, code in blocks if kind == "sh"]
        programs = [code for kind, code in blocks if kind == "cpp"]
        if len(programs) != 1 or len(self.shell) != 6:
            raise RuntimeError(f"the page has {len(programs)} programs and {len(self.shell)} shell blocks")
        (folder / "site.cpp").write_text(programs[0])

    def environment(self):
        package = next(self.prefix.rglob("ipsechelpers.pc"), None)
        if package is None:
            raise RuntimeError(f"no library is installed in {self.prefix}")
        return dict(
            os.environ,
            PREFIX=str(self.prefix),
            PATH=":".join(sandbox.search_path()),
            PKG_CONFIG_PATH=str(package.parent),
            LD_LIBRARY_PATH=str(package.parent.parent),
        )

    def run(self, code, succeeds=True):
        """Runs a block, shows it and what it prints, and returns that."""
        print("\n".join(f"# {line}" for line in code.splitlines()), flush=True)
        done = subprocess.run(
            ["sh", "-eu", "-c", code],
            cwd=self.folder,
            env=self.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            check=False,
            timeout=300,
        )
        print(done.stdout, end="", flush=True)
        if (done.returncode == 0) != succeeds:
            raise RuntimeError(f"exit code {done.returncode}: {code.strip()}")
        return done.stdout


def expect(holds, what):
    if not holds:
        raise RuntimeError(f"this does not hold: {what}")
    print(f"ok  {what}", flush=True)


def copy_host(scratch):
    """Puts a copy in place of /etc, with the daemon's part as the packages leave it, and an empty folder over /run."""
    sandbox.run("mount", "-t", "tmpfs", "-o", "mode=0700", "tmpfs", str(scratch))
    copy = scratch / "etc"
    sandbox.run("cp", "-a", "/etc", str(copy))
    sandbox.run("mount", "--bind", str(copy), "/etc")
    sandbox.run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/run")
    sandbox.run("ip", "link", "set", "lo", "up")
    shutil.rmtree("/etc/strongswan", ignore_errors=True)
    pathlib.Path(ADDED[0]).unlink(missing_ok=True)
    pathlib.Path("/etc/ipsec.conf").write_text("")
    OVERRIDE.parent.mkdir(exist_ok=True)
    OVERRIDE.write_text("")
    pathlib.Path("/etc/strongswan.d/log.conf").write_text(LOG_CONF)


def status():
    return subprocess.run(["ipsec", "statusall"], capture_output=True, text=True, check=False).stdout


def start(page):
    page.run(page.shell[1])
    wait_until(lambda: "Status of IKE" in status(), "the daemon's start")


def stop():
    """Ends starter, which ends the daemon. `ipsec stop` would wait for this process to collect what it has ended."""
    os.kill(int(pathlib.Path("/run/starter.charon.pid").read_text()), signal.SIGTERM)
    wait_until(lambda: not any(pathlib.Path("/run").glob("*charon.pid")), "the daemon's end")


def follow_without_setup(page):
    """What happens to those who do not read the page."""
    pathlib.Path("/etc/strongswan").mkdir()
    start(page)
    said = page.run(page.shell[2], succeeds=False)
    expect("The daemon does not run." in said, "without the set-up, the running daemon counts as stopped")
    sandbox.run("ipsec", "update")
    sandbox.run("ipsec", "rereadsecrets")
    stop()
    expect("10.0.0.2" in pathlib.Path("/etc/strongswan/ipsec.conf").read_text(), "the library has written its files")
    log = LOG.read_text()
    expect("loading secrets from '/etc/ipsec.secrets'" in log, "the daemon has read its own secrets file")
    expect("added configuration" not in log, "the daemon has loaded no connection")
    shutil.rmtree("/etc/strongswan")
    LOG.unlink()


def files_state():
    """The files that the set-up concerns, with their contents, modes and link targets."""
    state = {}
    for path in [*pathlib.Path("/etc/strongswan").rglob("*"), *map(pathlib.Path, ADDED), OVERRIDE]:
        if path.is_symlink():
            state[str(path)] = os.readlink(path)
        elif path.exists():
            state[str(path)] = (oct(path.stat().st_mode), path.read_bytes() if path.is_file() else None)
    return state


def follow(page):
    local = "# the site's own line\n"
    OVERRIDE.write_text(local)
    page.run(page.shell[0])
    state = files_state()
    page.run(page.shell[0])
    expect(files_state() == state, "a second run of the set-up changes nothing")
    modes = {name: oct((sandbox.CONF_DIR / name).stat().st_mode & 0o777) for name in ("ipsec.conf", "ipsec.secrets")}
    expect(modes == {"ipsec.conf": "0o644", "ipsec.secrets": "0o600"}, "the files' modes")
    start(page)
    said = page.run(page.shell[2])
    expect(said.splitlines()[-1] == NAME, "the library has told the daemon")
    wait_until(lambda: NAME in status(), "the connection")
    shown = page.run(page.shell[3])
    expect(re.search(rf"^\s*{NAME}: +10\.0\.0\.1\.\.\.10\.0\.0\.2 +IKEv2", shown, re.MULTILINE), "it is loaded")
    log = LOG.read_text()
    expect("loading secrets from '/etc/strongswan/ipsec.secrets'" in log, "the daemon reads the library's secrets")
    expect("loaded IKE secret for 10.0.0.2" in log, "the secret is loaded")
    check_profile(page)
    stop()
    expect("does not run" in page.run("./site", succeeds=False), "a stopped daemon counts as stopped")
    start(page)
    wait_until(lambda: NAME in status(), "the connection that a new daemon loads")
    check_rereading()
    stop()
    page.run(page.shell[5])
    left = files_state()
    expect(not any(path in left for path in ADDED) and OVERRIDE.read_text() == local, "the set-up is taken back")
    expect("/etc/strongswan/ipsec.secrets" in left, "the files stay")


def loads():
    return LOG.read_text().count(f"received stroke: add connection '{NAME}'")


def check_rereading():
    """What `ipsec update` and `ipsec reload` do with a connection that is as it was."""
    before = loads()
    pathlib.Path("/etc/strongswan/ipsec.conf").open("a").write("conn another\n\tkeyexchange=ikev2\n\tauto=add\n")
    sandbox.run("ipsec", "update")
    wait_until(lambda: "another" in status(), "another connection")
    expect(loads() == before, "an update leaves an equal connection alone")
    sandbox.run("ipsec", "reload")
    wait_until(lambda: loads() == before + 1 and NAME in status(), "the same connection, loaded again")
    print("ok  a reload loads every connection again", flush=True)


def preprocessed():
    command = ["apparmor_parser", "-QTK", "--preprocess", str(PROFILE)]
    return subprocess.run(command, capture_output=True, text=True, check=False)


def check_profile(page):
    page.run(page.shell[4])
    rule = re.compile(r"^\s*/etc/strongswan/ipsec\.secrets r,$", re.MULTILINE)
    expect(rule.search(preprocessed().stdout), "the profile lets the daemon read the secrets file")
    override = OVERRIDE.read_text()
    OVERRIDE.write_text(override.replace("secrets r,", "secrets r"))
    page.run(page.shell[4], succeeds=False)
    expect(True, "the parser refuses a profile with a broken line")
    OVERRIDE.write_text("")
    expect(not rule.search(preprocessed().stdout), "the profile as shipped does not")
    OVERRIDE.write_text(override)


def inside(options):
    scratch = pathlib.Path(options.inside)
    copy_host(scratch)
    page = Page(pathlib.Path(options.prefix).resolve(), scratch)
    try:
        follow_without_setup(page)
        follow(page)
    except RuntimeError as error:
        print(f"stock: FAILED: {error}", flush=True)
        if LOG.exists():
            print(LOG.read_text(), flush=True)
        return 1
    return 0


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    where = parser.add_mutually_exclusive_group(required=True)
    where.add_argument("--build", help="a build folder, whose library is installed into a temporary folder")
    where.add_argument("--prefix", help="where the library is installed")
    parser.add_argument("--inside", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.inside:
        return inside(options)
    if options.prefix:
        return sandbox.run_inside("stock", what_is_missing)
    with tempfile.TemporaryDirectory(prefix="stock-prefix-") as prefix:
        sandbox.run("cmake", "--install", options.build, "--prefix", prefix)
        sys.argv[1:] = ["--prefix", prefix]
        return sandbox.run_inside("stock", what_is_missing)


if __name__ == "__main__":
    sys.exit(main())
