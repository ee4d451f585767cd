"""A watchdog held open guards a board without a line of the kernel, and is disarmed on purpose."""

from board.board import Board, expect, expect_equal

LIMIT = 400

TIMEOUT = 12  # seconds
SHORT = 2  # a kernel that has panicked does not sleep, and so takes its time here
LONG = 40  # three timeouts
MARGIN = 3

SCRIPT = f"""
start=$(cat /root/start || echo 1)
echo $((start + 1)) >/root/start; sync
uptime() {{ cut -d' ' -f1 /proc/uptime; }}
tell() {{ echo "$start: $*"; }}
complaints() {{ dmesg | grep -c 'did not stop'; }}
until_reset() {{ while :; do tell "alive at $(uptime)"; usleep 200000; done; }}

if [ $start = 1 ]; then
    driver guard {TIMEOUT} 1000 & guard=$!
    sleep 5
    driver disarm {TIMEOUT}
    sleep {LONG}
    tell "timeout $(cat /sys/class/watchdog/watchdog0/timeout)"
    tell "nowayout $(cat /sys/class/watchdog/watchdog0/nowayout)"
    tell "complaints $(complaints)"
    kill -STOP $guard
    tell "last kick before $(uptime)"
    until_reset
fi
if [ $start = 2 ]; then
    driver guard {TIMEOUT} 1000 & guard=$!
    sleep 5
    kill -KILL $guard
    wait $guard
    tell "last kick before $(uptime)"
    tell "complaints $(complaints)"
    until_reset
fi
if [ $start = 3 ]; then
    rmmod imx2_wdt
    insmod /lib/modules/board/*imx2_wdt.ko nowayout=1
    tell "nowayout $(cat /sys/class/watchdog/watchdog0/nowayout)"
    driver disarm {TIMEOUT}
    tell "last kick before $(uptime)"
    tell "refusals $(dmesg | grep -c 'nowayout prevents watchdog being stopped')"
    until_reset
fi
if [ $start = 4 ]; then
    driver guard {SHORT} 1000 &
    sleep 5
    tell "panic, and the kernel waits for somebody to come"
    echo 0 >/proc/sys/kernel/panic
    echo c >/proc/sysrq-trigger
fi
driver disarm {TIMEOUT}
sleep {LONG}
tell "complaints $(complaints)"
tell "not reset"
"""


def run(board: Board):
    machine = board.run(SCRIPT, starts=5)
    lines = machine.lines

    expect_equal(machine.resets, 4, "resets")
    expect(f"guard by imx2+ watchdog, {TIMEOUT} s, not stopped by a close" in lines,
           "the driver is another one than expected")
    expect("open the watchdog is held by another process" in lines,
           "a second guard was not refused")
    expect_equal(value(lines, "1: timeout "), TIMEOUT, "the driver's timeout")
    expect_equal(value(lines, "1: complaints "), 0,
                 "lines of the kernel while the board was kicked")
    expect_equal(value(lines, "2: complaints "), 1, "lines of the kernel after the service's death")
    expect_equal([value(lines, f"{start}: nowayout ") for start in (1, 3)], [0, 1], "nowayout")
    expect("disarm the watchdog cannot be stopped" in lines, "the driver could be stopped")
    expect_equal(value(lines, "3: refusals "), 1, "lines of the kernel that refuse a stop")
    expect("disarm done" in lines, "the watchdog could not be disarmed")
    expect_equal(value(lines, "5: complaints "), 0, "lines of the kernel of a disarmed watchdog")
    expect("5: not reset" in lines, "a disarmed watchdog reset the board")
    expect(any("Kernel panic" in line for line in lines), "the kernel did not panic")
    board.note(f"{LONG} s lived through with kicks, and with a watchdog that was disarmed")
    for start, death in ((1, "stopped"), (2, "killed"), (3, "not disarmed")):
        survived = value(lines, f"{start}: alive at ") - value(lines, f"{start}: last kick before ")
        expect(survived <= TIMEOUT + MARGIN, f"{death}: reset only after {survived:.1f} s")
        expect(survived >= TIMEOUT - TIMEOUT / 4 - MARGIN, f"{death}: reset after {survived:.1f} s")
        board.note(f"{death}: reset after {survived:.1f} s (timeout {TIMEOUT} s)")


def value(lines: list[str], label: str) -> float:
    """Returns the number of the last line with this label."""
    return float([line for line in lines if line.startswith(label)][-1].split()[-1])
