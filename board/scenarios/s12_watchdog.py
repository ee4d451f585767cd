"""The watchdog leaves a board alone that kicks it, and resets one that no longer does."""

from board.board import Board, expect, expect_equal

LIMIT = 400

TIMEOUT = 12  # seconds
KICKS = 12  # four in a timeout
MARGIN = 3

SCRIPT = f"""
[ -e /root/seen ] && exit
echo 1 >/root/seen; sync
uptime() {{ cut -d' ' -f1 /proc/uptime; }}
echo "armed at $(uptime)"
driver watchdog {TIMEOUT} {KICKS}
echo "kicked until $(uptime)"
echo "applied $(cat /sys/class/watchdog/watchdog0/timeout)"
echo "logged $(grep -c 'Watchdog have been reset' /var/log/quellon.log)"
grep 'timeout have been set' /var/log/quellon.log
while :; do echo "alive at $(uptime)"; usleep 200000; done
"""


def run(board: Board):
    machine = board.run(SCRIPT, starts=2)

    expect_equal(machine.resets, 1, "resets")
    expect("driver: watchdog yes" in machine.lines, "not every kick was taken")
    armed, kicked = value(machine, "armed at "), value(machine, "kicked until ")
    expect(kicked - armed >= 3 * TIMEOUT, f"only {kicked - armed:.1f} s were lived through")
    expect_equal(value(machine, "applied "), TIMEOUT, "the driver's timeout")
    expect_equal(value(machine, "logged "), KICKS, "kicks in the log")
    expect(any(f"[WTD] Watchdog timeout have been set to {TIMEOUT} seconds" in line
               for line in machine.lines[machine.lines.index(f"logged {KICKS}"):]),
           "the log does not hold the timeout")
    survived = value(machine, "alive at ") - kicked
    expect(TIMEOUT - MARGIN <= survived <= TIMEOUT + MARGIN,
           f"the reset came {survived:.1f} s after the last kick")
    board.note(f"{kicked - armed:.1f} s lived through with kicks, "
               f"reset {survived:.1f} s after the last one (timeout {TIMEOUT} s)")


def value(machine, label: str) -> float:
    """Returns the number of the last line with this label."""
    return float([line for line in machine.lines if line.startswith(label)][-1].split()[-1])
