"""A watchdog held open restarts the board whatever the service dies of, until it is disarmed."""

from itertools import takewhile

from board.board import Board, expect, expect_equal

LIMIT = 400

TIMEOUT = 8  # seconds
SHORT = 1  # a kernel that has panicked does not sleep, and so takes its time here
LONG = 25  # three timeouts
MARGIN = 2

# Deaths of a service, how each is done, and the state of the process then, if there is one. It
# hangs while it writes its log on a file system that is frozen.
DEATHS = {
    "stopped": ("kill -STOP", "T"),
    "killed": ("kill -KILL", ""),
    "crashed": ("kill -SEGV", ""),
    "hung": ("freeze", "D"),
}

SCRIPT = f"""
start=$(cat /root/start || echo 1)
echo $((start + 1)) >/root/start; sync
uptime() {{ read -r up idle </proc/uptime; echo "$up"; }}
tell() {{ echo "$start: $*"; }}
complaints() {{ dmesg | grep -c 'did not stop'; }}
until_reset() {{ while :; do tell "alive at $(uptime)"; usleep 500000; done; }}

mkdir -p /root/log
mount --bind /root/log /var/log
serve() {{
    dmesg -c >/dev/null
    driver log-and-kick {TIMEOUT} 1000 plain >/dev/null & guard=$!
    sleep 5
}}
freeze() {{ fsfreeze --freeze /root; }}
die() {{
    tell "complaints in life $(complaints)"
    "$@" $guard
    tell "last kick before $(uptime)"
    sleep {TIMEOUT // 2}
    tell "state $(sed -n 's/^State:[[:space:]]*\\([TD]\\).*/\\1/p' /proc/$guard/status 2>/dev/null)"
    tell "complaints $(complaints)"
}}
softdog() {{ insmod /lib/modules/spare/*softdog.ko "$@"; }}

case $start in
1)
    driver guard {TIMEOUT} 1000 & guard=$!
    sleep 5
    driver disarm {TIMEOUT}
    sleep {LONG}
    tell "timeout $(cat /sys/class/watchdog/watchdog0/timeout)"
    tell "nowayout $(cat /sys/class/watchdog/watchdog0/nowayout)"
    die {DEATHS["stopped"][0]}
    until_reset ;;
2)
    serve
    die {DEATHS["killed"][0]}
    until_reset ;;
3)
    rmmod imx2_wdt
    insmod /lib/modules/board/*imx2_wdt.ko nowayout=1
    tell "nowayout $(cat /sys/class/watchdog/watchdog0/nowayout)"
    driver disarm {TIMEOUT}
    tell "refusals $(dmesg | grep -c 'nowayout prevents watchdog being stopped')"
    serve
    die {DEATHS["crashed"][0]}
    until_reset ;;
4)
    serve
    die {DEATHS["hung"][0]}
    until_reset ;;
5)
    driver guard {SHORT} 1000 &
    sleep 5
    tell "panic, and the kernel waits for somebody to come"
    echo 0 >/proc/sys/kernel/panic
    echo c >/proc/sysrq-trigger ;;
6)  # the kernel's own watchdog, which restarts the board by what the other's driver offers
    rmmod imx2_wdt
    softdog soft_noboot=1
    insmod /lib/modules/board/*imx2_wdt.ko
    for death in {" ".join(f"'{name} {how}'" for name, (how, _) in DEATHS.items())}; do
        set -- $death
        tell "softdog $1"
        shift
        serve
        die "$@"
        sleep {TIMEOUT}
        dmesg | sed -n "s/^\\[ *\\([0-9.]*\\)] softdog: Triggered.*/$start: alive at \\1/p"
        fsfreeze --unfreeze /root 2>/dev/null
        kill -KILL $guard 2>/dev/null
        wait $guard
    done
    tell "softdog restarts"
    driver disarm {TIMEOUT}
    rmmod softdog
    softdog
    serve
    die {DEATHS["crashed"][0]}
    until_reset ;;
7)
    rmmod imx2_wdt
    softdog
    insmod /lib/modules/board/*imx2_wdt.ko
    driver guard {TIMEOUT} 1000 &
    sleep 1
    tell "panic, and the kernel restarts the board itself"
    echo c >/proc/sysrq-trigger ;;
esac
driver disarm {TIMEOUT}
sleep {LONG}
tell "complaints $(complaints)"
tell "not reset"
"""


def run(board: Board):
    machine = board.run(SCRIPT, starts=8)
    lines = machine.lines

    expect_equal(machine.resets, 7, "resets")
    expect(f"guard by imx2+ watchdog, {TIMEOUT} s, not stopped by a close" in lines,
           "the driver is another one than expected")
    expect("open the watchdog is held by another process" in lines,
           "a second guard was not refused")
    expect_equal(value(lines, "1: timeout"), TIMEOUT, "the driver's timeout")
    expect_equal([value(lines, f"{start}: nowayout") for start in (1, 3)], [0, 1], "nowayout")
    expect("disarm the watchdog cannot be stopped" in lines, "the driver could be stopped")
    expect_equal(value(lines, "3: refusals"), 1, "lines of the kernel that refuse a stop")
    expect("disarm done" in lines, "the watchdog could not be disarmed")
    expect_equal(value(lines, "8: complaints"), 0, "lines of the kernel of a disarmed watchdog")
    expect("8: not reset" in lines, "a disarmed watchdog reset the board")
    expect_equal(sum("] Kernel panic" in line for line in lines), 2, "panics")
    board.note(f"{LONG} s lived through with kicks, and with a watchdog that was disarmed")
    for start, death in enumerate(DEATHS, 1):
        expect_death(board, death, [line for line in lines if line.startswith(f"{start}: ")])
    softdog = [line for line in lines if line.startswith("6: ")]
    for death in DEATHS:
        begin = softdog.index(f"6: softdog {death}") + 1
        told = takewhile(lambda line: not line.startswith("6: softdog"), softdog[begin:])
        expect_death(board, death, list(told), "softdog, ")
    expect_death(board, "crashed", softdog[softdog.index("6: softdog restarts"):], "softdog, ")


def expect_death(board: Board, death: str, lines: list[str], note: str = ""):
    """Judges what was told of one death, from the service's last kick on."""
    state = DEATHS[death][1]
    expect_equal(text(lines, "state"), state, f"{note}{death}: the service")
    expect_equal(value(lines, "complaints in life"), 0, f"{note}{death}: lines while it kicked")
    expect_equal(value(lines, "complaints"), int(state == ""),
                 f"{note}{death}: lines of the kernel after the death")
    survived = value(lines, "alive at") - value(lines, "last kick before")
    expect(TIMEOUT / 2 - MARGIN <= survived <= TIMEOUT + MARGIN,
           f"{note}{death}: reset after {survived:.1f} s")
    board.note(f"{note}{death}: reset after {survived:.1f} s (timeout {TIMEOUT} s)")


def text(lines: list[str], label: str) -> str:
    """Returns what follows the last such label."""
    return [line for line in lines if f"{label} " in line][-1].split(f"{label} ")[1]


def value(lines: list[str], label: str) -> float:
    return float(text(lines, label))
