"""One emulated machine from power-on to power-off: its console, its card slot, its power."""

import json
import socket
import subprocess
import sys
import threading
import time
from contextlib import contextmanager
from dataclasses import dataclass, field
from functools import cache
from pathlib import Path

from board.parts import Parts
from board.tools import Failure

# The kernel's tests of its own cryptography would be most of what it computes until it has started,
# and what it traces itself with a sixth of the rest.
# Memory that is not protected from the kernel itself, and not wiped twice, is a tenth of a start.
# Programs and libraries at fixed addresses are translated once, not for every process anew.
KERNEL_ARGUMENTS = ("console=ttymxc0,115200 rdinit=/init panic=-1 quiet loglevel=3 "
                    "cryptomgr.notests initcall_blacklist=tracer_init_tracefs "
                    "rodata=off init_on_alloc=0 norandmaps")

# The board's time follows its instructions, a nanosecond each, and jumps over what it would sleep.
# So its pauses cost nothing, and a busy host does not make it late.
TIME = ["-icount", "shift=0,sleep=off,align=off"]

# On a busy host QEMU 7.2 now and then sleeps through its next timer, and the board with it, until
# anything is asked of it. So something is asked every so many seconds.
WAKING = 0.5

STARTED = "board: started after "


@cache
def drive_options() -> str:
    """Returns the options of all drives.

    An emulated card has one sector after the other read and written, which costs two threads that
    wake each other for each. By io_uring, where the host lets QEMU have it, the asking one does it.
    """
    options = "format=raw,cache=unsafe,aio=io_uring"
    tried = subprocess.run(["qemu-system-arm", "-M", "none", "-nodefaults", "-display", "none",
                            "-monitor", "stdio", "-drive", f"if=none,{options},file=/dev/null"],
                           input=b"quit\n", capture_output=True)
    return options if tried.returncode == 0 else "format=raw,cache=unsafe"


class Ended(Failure):
    """The machine has ended before it did what it was asked."""


class Control:
    """One connection with QEMU's control protocol."""

    def __init__(self, connection: socket.socket):
        self.events: list[str] = []
        self._socket = connection
        self._answers = connection.makefile("r")

    def greet(self):
        """Takes what QEMU says first, after which it takes commands."""
        self._answers.readline()
        self.run("qmp_capabilities")

    def run(self, command: str, **arguments):
        """Runs one command and returns its result."""
        try:
            request = json.dumps({"execute": command, "arguments": arguments})
            self._socket.sendall(request.encode())
            for line in self._answers:
                answer = json.loads(line)
                if "return" in answer:
                    return answer["return"]
                if "error" in answer:
                    raise Failure(f"{command}: {answer['error']['desc']}")
                self.events.append(answer["event"])
        except OSError:
            pass
        raise Ended(f"the machine has ended before {command}")

    def pull_card(self):
        self.run("eject", device="card", force=True)

    def insert_card(self, image: Path):
        self.run("blockdev-change-medium", device="card", filename=str(image), format="raw")

    def close(self):
        """Reads the events up to the machine's end, which must be near."""
        if self._answers.closed:
            return
        try:
            self.events += [json.loads(line).get("event") for line in self._answers]
        except OSError:
            pass
        self._answers.close()
        self._socket.close()


@dataclass
class Hardware:
    """What a machine consists of. A drive is the path of an image, or a QEMU file name such as
    blkdebug:CONFIGURATION:IMAGE; without a card the slot is empty.
    """

    parts: Parts
    initramfs: Path
    storage: Path
    card: str | Path | None = None
    clock: str = "utc"  # or the date and time the battery-backed clock starts from
    options: list[str] = field(default_factory=list)

    def command(self) -> list[str]:
        card = f",{drive_options()},file={self.card}" if self.card else ""
        return [
            # The machine dies with its owner, however that ends.
            "setpriv", "--pdeathsig", "KILL",
            "qemu-system-arm", "-M", "mcimx6ul-evk", "-m", "512", "-nodefaults",
            "-display", "none",
            "-kernel", str(self.parts.kernel), "-dtb", str(self.parts.device_tree),
            "-initrd", str(self.initramfs), "-append", KERNEL_ARGUMENTS,
            "-drive", f"if=sd,index=0,{drive_options()},id=storage,file={self.storage}",
            "-drive", f"if=sd,index=1,id=card{card}",
            "-device", "ds1338,bus=i2c-bus.0,address=0x68",
            "-rtc", f"base={self.clock},clock=vm",
            *self.options,
        ]


class Machine:
    """A running machine. Leaving the `with` block cuts its power if it still runs."""

    def __init__(self, hardware: Hardware, log: Path, limit: float, echo: bool = False):
        """Starts the machine; its power is cut after `limit` seconds at the latest.

        The console is appended to `log` and, if `echo`, also shown.
        """
        self.lines: list[str] = []
        self._log, self._echo = log, echo
        self._read = 0  # lines already looked at by wait()
        self._ended = False
        self._late = False
        self._news = threading.Condition()

        ours, theirs = socket.socketpair()
        with theirs, open(log, "a") as complaints:
            fd = theirs.fileno()
            self._process = subprocess.Popen(
                [*hardware.command(), *TIME, "-serial", "stdio",
                 "-chardev", f"socket,id=control,fd={fd}", "-mon", "chardev=control,mode=control"],
                stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=complaints, pass_fds=[fd])
        self._control = Control(ours)
        self._console = threading.Thread(target=self._read_console)
        self._console.start()
        self._timer = threading.Timer(limit, self._out_of_time)
        self._timer.start()
        try:
            with self._until_ended():
                self._control.greet()
        except BaseException:
            self.cut_power()
            raise

    def __enter__(self) -> "Machine":
        return self

    def __exit__(self, *unused):
        self.cut_power()

    @property
    def boots(self) -> int:
        """How often the board has started, the first start included."""
        return sum(line.startswith(STARTED) for line in self.lines)

    @property
    def resets(self) -> int:
        """How often the board itself has asked for a reset; known when the machine has ended."""
        return self._control.events.count("RESET")

    def wait(self, text: str) -> str:
        """Returns the first line with this text after the line found before."""
        while (line := self._find(text)) is None:
            self._wake()
        return line

    def _find(self, text: str) -> str | None:
        """Looks through the new lines, or waits a little for some if there are none."""
        with self._news:
            if self._read == len(self.lines) and not self._ended:
                self._news.wait(WAKING)
            while self._read < len(self.lines):
                line = self.lines[self._read]
                self._read += 1
                if text in line:
                    return line
            if self._ended:
                raise Failure(f"{self._end()} before the console showed {text!r}")
        return None

    def arrive(self, name: str):
        """Waits until the board has come to `await NAME`; it stays there until go_on(NAME)."""
        self.wait(f"board: await {name}")

    def go_on(self, name: str):
        """Lets the board continue; asked again until it does, as the emulated line may drop it."""
        while True:
            self._type(name)
            if self._find(f"board: go on {name}"):
                return

    def run_for(self, seconds: float):
        """Leaves the board alone for a time of the host, or until it has powered itself off."""
        end = time.monotonic() + seconds
        while (left := end - time.monotonic()) > 0:
            try:
                self._process.wait(min(left, WAKING))
                return
            except subprocess.TimeoutExpired:
                self._wake()

    def finish(self):
        """Waits until the board has powered itself off."""
        while self._process.poll() is None:
            self.run_for(WAKING)
        self._close()
        if self._late or self._process.returncode != 0:
            raise Failure(self._end())

    def cut_power(self):
        """Ends the machine at once; what it has not yet written to its drives is lost."""
        self._process.kill()
        self._process.wait()
        self._close()

    def pull_card(self):
        with self._until_ended():
            self._control.pull_card()

    def insert_card(self, image: Path):
        with self._until_ended():
            self._control.insert_card(image)

    @contextmanager
    def _until_ended(self):
        """Tells how the machine ended if it does before what is asked of it."""
        try:
            yield
        except Ended:
            raise Failure(f"{self._end()} meanwhile") from None

    def _type(self, text: str):
        try:
            self._process.stdin.write(text.encode() + b"\n")
            self._process.stdin.flush()
        except OSError:
            pass  # the console's end tells why

    def _wake(self):
        try:
            self._control.run("query-status")
        except Ended:
            pass

    def _read_console(self):
        with open(self._log, "a") as log:
            for data in self._process.stdout:
                line = data.decode(errors="replace").rstrip("\r\n")
                print(line, file=log, flush=True)
                if self._echo:
                    print(line, file=sys.stdout, flush=True)
                with self._news:
                    self.lines.append(line)
                    self._news.notify_all()
        with self._news:
            self._ended = True
            self._news.notify_all()

    def _out_of_time(self):
        self._late = True
        self._process.kill()

    def _end(self) -> str:
        if self._late:
            return "the time limit cut the power"
        code = self._process.wait()
        return "the board powered off" if code == 0 else f"the machine ended with {code}"

    def _close(self):
        self._timer.cancel()
        self._console.join()
        self._control.close()
        self._process.stdin.close()
