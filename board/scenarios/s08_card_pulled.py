"""The card is pulled while recording: the service says so, goes on, and takes one put back.

Somebody stands on each card that is pulled, and leaves before it is put back.
"""

from board.board import Board, expect_equal
from board.image import Image, fill
from board.recorder import expect_intact, health, recorded, recording, recordings, service, stop

LIMIT = 400

# The service notices long before the next recording.
PERIOD = 4000  # ms

# The service's time stands nearly still while the host pulls or inserts the card.
PULLED = """
until [ "$(sed '1,/{after}/d' /var/log/quellon.log | grep -c 'Recorded .*gps')" = 2 ]; do
    sleep 1
done
cd /mnt/sdcard
hold {name}-pulled
until [ ! -e /dev/mmcblk1 ]; do usleep 100000; done
echo lost >/mnt/sdcard/lost; sync
await {name}-released
cd /
sleep 6
hold {name}-looked-for
until [ -e /dev/mmcblk1 ]; do usleep 100000; done
"""

# Nearly as many as fit on the card.
OLD = range(101, 143)


def run(board: Board):
    card = new_card(board)
    # Two recordings are deleted for every second one made: after two there is no room.
    script = service(PULLED.format(name="first", after="Catalogue of") +
                     PULLED.format(name="second", after="Deleted 2 oldest"), PERIOD)
    with board.start(script, card) as machine:
        machine.wait("[REC] Recorded rec_000144.gps")
        pull(machine, "first")
        machine.wait("[REC] Card: the card is gone")
        put_back(machine, "first", card)

        machine.wait("[REC] Deleted 2 oldest recordings")
        machine.wait(".gps")
        machine.wait(".gps")
        pull(machine, "second")
        machine.wait("[REC] Card: the card is gone")
        put_back(machine, "second", card)

        machine.wait("[REC] Recorded")
        machine.wait(".gps")
        stop(machine)

    expect_equal(machine.boots, 1, "starts")
    expect_equal(health(machine)["zr"], 0, "the state of the card put back")
    complete = [recording(int(name[4:10]), name[-3:]) for name in recorded(machine)]
    expect_intact(card, dict(complete))
    expect_equal(card.check(), 0, "the card's check")
    board.note(f"{len(complete)} files complete, before, between and after two pulls, all intact")


def new_card(board: Board) -> Image:
    files = {f"cr/{name}": content for name, content in recordings(OLD).items()}
    times = {name: 1_600_000_000 + int(name[7:13]) for name in files}
    return Image.card(board.folder / "card.img", fill(board.folder / "card", files, times),
                      size=64 << 20)


def pull(machine, pull: str):
    machine.arrive(f"{pull}-pulled")
    machine.pull_card()
    machine.go_on(f"{pull}-pulled")


def put_back(machine, pull: str, card: Image):
    """Waits until the service has released the card and looked for it, and puts it back."""
    machine.wait("[REC] Card released when nobody uses it any more")
    machine.go_on(f"{pull}-released")
    machine.arrive(f"{pull}-looked-for")
    machine.insert_card(card.path)
    machine.go_on(f"{pull}-looked-for")
    machine.wait("[REC] Catalogue of")
