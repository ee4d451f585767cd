"""Whatever ends a test takes its processes and its files with it."""

import ctypes
import os
import signal
import sys
import tempfile
from pathlib import Path

CANNOT_RUN = 77  # the exit code of a test that is skipped

# From linux/sched.h, linux/mount.h and linux/prctl.h.
NEW_MOUNTS, NEW_PROCESSES = 0x20000, 0x20000000
PRIVATE, AND_BELOW = 1 << 18, 1 << 14
SIGNAL_AT_PARENTS_END = 1


def go_on_alone(prefix: str) -> Path:
    """Goes on in namespaces for processes and mounts, and returns a folder in memory.

    This process waits for the one that goes on, and ends as that does. If this one is killed, the
    folder stays, and is empty.
    """
    folder = Path(tempfile.mkdtemp(dir="/dev/shm", prefix=prefix))
    try:
        call("unshare", NEW_PROCESSES)
        sys.stdout.flush()
        process = os.fork()
        if process != 0:
            wait_and_exit(process)
    except OSError as error:
        print(f"skipped: {error}")
        sys.exit(CANNOT_RUN)
    finally:
        if os.getpid() != 1:
            folder.rmdir()
    call("prctl", SIGNAL_AT_PARENTS_END, signal.SIGKILL)
    call("unshare", NEW_MOUNTS)
    call("mount", b"none", b"/", None, PRIVATE | AND_BELOW, None)
    call("mount", b"memory", bytes(folder), b"tmpfs", 0, None)
    return folder


def wait_and_exit(process: int):
    """A request to end ends this process, and so the other, which then cannot refuse."""
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    signal.signal(signal.SIGINT, lambda *_: sys.exit(128 + signal.SIGINT))
    _, status = os.waitpid(process, 0)
    code = os.waitstatus_to_exitcode(status)
    sys.exit(code if code >= 0 else 128 - code)


def call(name: str, *arguments):
    if getattr(ctypes.CDLL(None, use_errno=True), name)(*arguments) != 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)}")
