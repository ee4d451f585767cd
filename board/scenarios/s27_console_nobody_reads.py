"""An hour with a console that nobody reads costs lines of the console, and no restart."""

from board.board import Board, expect, expect_equal

LIMIT = 300

TIMEOUT = 120  # seconds, of the watchdog; the thread that logs kicks it twice in each
HOUR = 3600
LINES = HOUR // (TIMEOUT // 2) + 5  # the last of them are read again
ALMOST = 56 * 1024  # bytes, of the 64 KiB that a pipe holds

# The first start is the control: without a guard the console stops the thread that kicks. To look
# into an empty slot each second of an hour would take the host a minute.
SCRIPT = f"""
start=$(cat /root/start || echo 1)
echo $((start + 1)) >/root/start; sync
tell() {{ echo "$start: $*"; }}
[ $start = 1 ] && kind=plain || kind=guarded

echo 2194000.mmc >/sys/bus/platform/drivers/sdhci-esdhc-imx/unbind
mkfifo /tmp/console
cat /tmp/console >/tmp/shown & reader=$!
driver log-and-kick {TIMEOUT} {LINES} $kind >/tmp/console & service=$!
sleep 1
kill -STOP $reader
head -c {ALMOST} /dev/zero | tr '\\0' '\\n' >/tmp/console
tell "nobody reads for an hour"
sleep {HOUR}
tell "an hour later"
kill -CONT $reader
wait $service
tell "ended with $?"
wait $reader
tell "logged $(grep -c '] *line [0-9]* *[.]$' /var/log/quellon.log)"
tell "shown $(grep -c '^.[-0-9: ]*] *line [0-9]* *[.]$' /tmp/shown)"
tell "told $(grep -c 'lines dropped' /tmp/shown)"
tell "dropped $(sed -n 's/^.CONSOLE. \\([0-9]*\\) lines dropped$/\\1/p' /tmp/shown)"
tell "last $(tail -n 1 /tmp/shown)"
"""


def run(board: Board):
    machine = board.run(SCRIPT, starts=2)
    lines = machine.lines

    expect_equal(machine.resets, 1, "resets")
    expect("1: an hour later" not in lines, "an unread console does not stop an unguarded service")
    expect("2: an hour later" in lines, "the board was reset")
    expect("2: ended with 0" in lines, "the service failed")
    expect_equal(number(lines, "logged"), LINES, "lines in the log file")
    expect_equal(number(lines, "told"), 1, "times that the count was told")
    dropped = number(lines, "dropped")
    expect(dropped > LINES / 2, f"{dropped} lines dropped: the console was read")
    expect_equal(number(lines, "shown") + dropped, LINES, "lines shown and lines told as dropped")
    expect("2: last driver: log-and-kick yes" in lines, "the service's own last line is missing")
    board.note(f"{dropped} of {LINES} lines dropped in an hour, and told; no restart")


def number(lines: list[str], label: str) -> int:
    """Returns the number that the board told."""
    return int(next(line for line in lines if line.startswith(f"2: {label} ")).split()[-1])
