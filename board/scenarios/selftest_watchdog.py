"""The watchdog leaves a board alone that kicks it and resets one that does not."""

from board.board import Board, expect_equal

BARE = True
LIMIT = 120

SCRIPT = """
[ -e /root/seen ] && echo "bootstatus $(cat /sys/class/watchdog/watchdog0/bootstatus)" && exit
echo 1 >/root/seen; sync
cat /sys/class/watchdog/watchdog0/timeout
watchdog -T 5 -t 1 -F /dev/watchdog &
sleep 15
echo "alive with watchdog"
kill -9 $!
sleep 30
echo "alive without watchdog"
"""


def run(board: Board):
    machine = board.run(SCRIPT, starts=2)
    expect_equal([line for line in machine.lines if line.startswith("alive")],
                 ["alive with watchdog"], "life signs")
    board.note(machine.lines[-3])
