# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0

"""A private place for the daemon: its own mount, network and pid namespaces, a veth pair, and the daemon itself.

Everything here happens inside namespaces that the runner has entered; nothing of the host is changed, and no packet
leaves them.
"""

import os
import pathlib
import subprocess
import sys
import tempfile
import time

SKIPPED = 77
CONF_DIR = pathlib.Path("/etc/strongswan")
IPSEC_DIR = pathlib.Path("/usr/lib/ipsec")
TOOLS = ("ip", "mount", "unshare", "nsenter")

AGENT_LINK = "10.50.0.2"
DAEMON = "10.50.0.1"
AGENT_RANGE = "10.51.0.0/16"
AGENT_LINK6 = "fd50::2"
DAEMON6 = "fd50::1"
AGENT6 = "fd51::"  # /64; the single addresses are added as they are used

STRONGSWAN_CONF = """\
charon {
  load = PLUGINS
  install_virtual_ip = no
  dh_exponent_ansi_x9_42 = no
  plugins {
    kernel-libipsec {
      allow_peer_ts = yes
    }
    kernel-netlink {
      fwmark = !0x42
    }
    socket-default {
      fwmark = 0x42
    }
    stroke {
      secrets_file = /etc/strongswan/ipsec.secrets
    }
  }
  filelog {
    log {
      path = /etc/strongswan/charon.log
      flush_line = yes
      default = 1
      LEVELS
    }
  }
}
starter {
  config_file = /etc/strongswan/ipsec.conf
  load_warning = no
}
"""

# In this order. The ones marked optional are folded into others in some releases. gmp comes before openssl, so that the
# daemon's MODP arithmetic is another one than the library's, where it is there; it is also the one that heeds
# dh_exponent_ansi_x9_42, and much quicker so with the large groups.
PLUGINS = (
    ("nonce", True),
    ("gmp", True),
    ("openssl", False),
    ("kdf", True),
    ("kernel-libipsec", False),
    ("kernel-netlink", False),
    ("socket-default", False),
    ("stroke", False),
)


def plugin_file(name):
    return IPSEC_DIR / "plugins" / f"libstrongswan-{name}.so"


def what_is_missing():
    """Says what this machine lacks, or returns None."""
    if os.geteuid() != 0:
        return "root rights"
    for tool in TOOLS:
        if not any(os.access(os.path.join(folder, tool), os.X_OK) for folder in search_path()):
            return f"the program {tool}"
    for program in ("starter", "charon", "stroke"):
        if not os.access(IPSEC_DIR / program, os.X_OK):
            return f"strongSwan's {IPSEC_DIR / program} (packages strongswan-starter, strongswan-charon)"
    for name, optional in PLUGINS:
        if not optional and not plugin_file(name).exists():
            return f"strongSwan's plugin {name} (packages libcharon-extra-plugins, libstrongswan-standard-plugins)"
    for names in ("/etc/protocols", "/etc/services"):
        if not os.access(names, os.R_OK):
            return f"the names in {names} (package netbase)"
    try:
        os.close(os.open("/dev/net/tun", os.O_RDWR))
    except OSError as error:
        return f"the TUN device ({error.strerror})"
    return None


def search_path():
    return os.environ.get("PATH", "").split(":") + ["/usr/sbin", "/sbin", "/usr/bin", "/bin"]


def namespace_command():
    return ["unshare", "-m", "-n", "-p", "--fork", "--kill-child", "--mount-proc", "--propagation", "private"]


def namespaces_missing():
    """Says why namespaces or a veth pair cannot be created, or returns None."""
    trial = namespace_command() + ["ip", "link", "add", "trial0", "type", "veth", "peer", "name", "trial1"]
    result = subprocess.run(trial, capture_output=True, text=True, check=False)
    if result.returncode == 0:
        return None
    return f"mount, network and pid namespaces with a veth pair ({result.stderr.strip()})"


def run_inside(name, lacks=what_is_missing):
    """Starts this program again inside private namespaces, with --inside and a scratch folder; returns its exit code.
    Where the machine lacks something it says so and returns 77, or 1 when CI is set."""
    missing = lacks() or namespaces_missing()
    if missing:
        in_ci = bool(os.environ.get("CI"))
        print(f"{name}: {'FAILED' if in_ci else 'SKIPPED'}: this machine lacks {missing}", flush=True)
        return 1 if in_ci else SKIPPED
    with tempfile.TemporaryDirectory(prefix=f"{name}-") as scratch:
        command = [*namespace_command(), sys.executable, os.path.abspath(sys.argv[0]), "--inside", scratch]
        return subprocess.run(command + sys.argv[1:], check=False).returncode


def keep_log(path):
    """Copies the daemon's log to a file, if one is wanted."""
    log = CONF_DIR / "charon.log"
    if path:
        pathlib.Path(path).write_bytes(log.read_bytes() if log.exists() else b"")


def run(*command):
    """Runs a command that must succeed; returns its output."""
    result = subprocess.run(command, capture_output=True, text=True, check=False)
    if result.returncode != 0:
        raise RuntimeError(f"{' '.join(command)}: {result.stderr.strip() or result.stdout.strip()}")
    return result.stdout


def wait_until(condition, what, seconds=10.0):
    end = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > end:
            raise RuntimeError(f"waited {seconds:g} s in vain: {what}")
        time.sleep(0.01)


class Sandbox:
    """The private place. scratch is an empty folder; it is covered by a file system in memory. levels say how much the
    daemon logs of what."""

    def __init__(self, scratch, levels=("ike = 4", "chd = 4")):
        self.scratch = pathlib.Path(scratch)
        self.levels = levels
        self.holder = None
        self.starter = None
        self.output = None

    def set_up(self):
        self.hide_host()
        self.write_daemon_files()
        self.connect()

    def hide_host(self):
        """Shows the daemon's folders as ours: /etc/strongswan and /run."""
        run("mount", "-t", "tmpfs", "-o", "mode=0700", "tmpfs", str(self.scratch))
        own = self.scratch / "strongswan"
        run_dir = own / "ipsec.d" / "run"
        run_dir.mkdir(parents=True)
        if not CONF_DIR.is_dir():
            self.make_room_in_etc()
        run("mount", "--bind", str(own), str(CONF_DIR))
        # The daemon's pid file is compiled in as /run/charon.pid; the library reads it under /etc/strongswan.
        run("mount", "--bind", str(run_dir), "/run")

    def make_room_in_etc(self):
        """Puts a folder of links in place of /etc, so that a folder can be added without touching the host's."""
        host_etc = self.scratch / "host-etc"
        host_etc.mkdir()
        run("mount", "--bind", "/etc", str(host_etc))
        run("mount", "-t", "tmpfs", "-o", "mode=0755", "tmpfs", "/etc")
        for entry in host_etc.iterdir():
            os.symlink(entry, pathlib.Path("/etc") / entry.name)
        CONF_DIR.mkdir()

    def write_daemon_files(self):
        loaded = [name for name, _ in PLUGINS if plugin_file(name).exists()]
        text = STRONGSWAN_CONF.replace("PLUGINS", " ".join(loaded)).replace("LEVELS", "\n      ".join(self.levels))
        (CONF_DIR / "strongswan.conf").write_text(text)
        (CONF_DIR / "ipsec.conf").write_text("")
        (CONF_DIR / "ipsec.secrets").write_text("")

    def connect(self):
        """Creates the daemon's network namespace and the veth pair into it."""
        self.holder = subprocess.Popen(["unshare", "-n", "sleep", "infinity"])
        own = os.readlink("/proc/self/ns/net")
        wait_until(lambda: os.readlink(f"/proc/{self.holder.pid}/ns/net") != own, "a network namespace")
        run("ip", "link", "add", "to-daemon", "type", "veth", "peer", "name", "to-agent", "netns", str(self.holder.pid))
        for address in (f"{AGENT_LINK}/24", f"{AGENT_LINK6}/64"):
            run("ip", "addr", "add", address, "dev", "to-daemon", *nodad(address))
        for link in ("lo", "to-daemon"):
            run("ip", "link", "set", link, "up")
        run("ip", "route", "add", "local", AGENT_RANGE, "dev", "lo")
        for address in (f"{DAEMON}/24", f"{DAEMON6}/64"):
            self.daemon_run("ip", "addr", "add", address, "dev", "to-agent", *nodad(address))
        for link in ("lo", "to-agent"):
            self.daemon_run("ip", "link", "set", link, "up")
        self.daemon_run("ip", "route", "add", AGENT_RANGE, "via", AGENT_LINK)
        self.daemon_run("ip", "-6", "route", "add", f"{AGENT6}/64", "via", AGENT_LINK6)

    def add_agent_address6(self, address):
        run("ip", "addr", "add", f"{address}/128", "dev", "lo", "nodad")

    def in_daemon_net(self, *command):
        return ["nsenter", f"--net=/proc/{self.holder.pid}/ns/net", *command]

    def daemon_run(self, *command):
        return run(*self.in_daemon_net(*command))

    def start_daemon(self):
        environment = dict(os.environ, STRONGSWAN_CONF=str(CONF_DIR / "strongswan.conf"))
        self.output = open(self.scratch / "starter.txt", "ab")
        starter = [str(IPSEC_DIR / "starter"), "--nofork", "--conf", str(CONF_DIR / "ipsec.conf")]
        self.starter = subprocess.Popen(
            self.in_daemon_net(*starter),
            env=environment,
            stdout=self.output,
            stderr=self.output,
            stdin=subprocess.DEVNULL,
        )
        wait_until(self.answers, "the daemon's start")

    def answers(self):
        if self.starter.poll() is not None:
            raise RuntimeError("the daemon's starter ended: " + (self.scratch / "starter.txt").read_text())
        result = subprocess.run([str(IPSEC_DIR / "stroke"), "statusall"], capture_output=True, text=True, check=False)
        return result.returncode == 0 and "Status of IKE" in result.stdout

    def stop_daemon(self):
        """Ends starter, which ends the daemon."""
        self.starter.terminate()
        self.starter.wait(timeout=20)
        self.output.close()

    def reread_connections(self):
        self.starter.send_signal(1)  # SIGHUP

    def daemon_pid(self):
        return int((CONF_DIR / "ipsec.d" / "run" / "charon.pid").read_text())

    def stroke(self, *arguments):
        return run(str(IPSEC_DIR / "stroke"), *arguments)

    def close(self):
        for process in (self.starter, self.holder):
            if process is not None and process.poll() is None:
                process.terminate()
                process.wait(timeout=20)


def nodad(address):
    return ["nodad"] if ":" in address else []
