"""Kernel, device tree and user space of the board, made from Debian's armhf packages.

Everything is fetched by apt, which verifies the checksums, and cached outside the repository.
Deleting the cache fetches the current packages again.
"""

import fcntl
import hashlib
import lzma
import os
import re
import shutil
import struct
import subprocess
import tempfile
from collections.abc import Callable
from dataclasses import dataclass
from pathlib import Path

from board.tools import Failure, Unavailable, run

KERNEL = "linux-image-armmp"
DEVICE_TREE = "imx6ul-14x14-evk.dtb"

USER_SPACE = """
    busybox-static dash mount util-linux fdisk e2fsprogs dmsetup
    libc6 libgcc-s1 libstdc++6 libext2fs2 libcom-err2 libss2 libblkid1 libuuid1 libmount1
    libselinux1 libpcre2-8-0 libsmartcols1 libtinfo6 logsave
    libdevmapper1.02.1 libudev1 libfdisk1 libreadline8
""".split()

# Loaded by the board's init in this order, each after what it depends on. crc32c_generic is not
# a dependency of ext4 but the checksum it asks the kernel for by name.
MODULES = ["crc32c_generic", "ext4", "sdhci-esdhc-imx", "imx2_wdt", "i2c-imx"]

# Loaded by fail-card.
FAULT_MODULES = ["dm-flakey"]

# Loaded by scenarios: a watchdog of the kernel's own.
SPARE_MODULES = ["softdog"]

# Where this kernel wants to be: the start of memory, and the room its Amlogic support asks for.
LOAD_ADDRESS = 0x80000000 + 0x208000
LINUX, ARM, KERNEL_IMAGE, NOT_COMPRESSED = 5, 2, 2, 0  # numbers of the U-Boot image header

# What the emulation has, and where it differs from the evaluation kit the tree describes.
STORAGE = "/soc/bus@2100000/mmc@2190000"
CLOCK = "/soc/bus@2100000/i2c@21a0000/rtc@68"
INTERNAL_CLOCK = "/soc/bus@2000000/snvs@20cc000/snvs-rtc-lp"
TREE_CHANGES = [  # fdtput's options, then what follows the file
    # The fixed storage: soldered, no voltage switch, no card-detect line.
    ("-d", STORAGE, "cd-gpios", "vmmc-supply", "pinctrl-1", "pinctrl-2"),
    ("-t s", STORAGE, "pinctrl-names", "default"),
    ("-t x", STORAGE, "non-removable"),
    ("-t x", STORAGE, "no-1-8-v"),
    # The battery-backed clock.
    ("-c", CLOCK),
    ("-t s", CLOCK, "compatible", "dallas,ds1338"),
    ("-t x", CLOCK, "reg", "68"),
    # The processor's own clock is not emulated.
    ("-t s", INTERNAL_CLOCK, "status", "disabled"),
]


@dataclass
class Parts:
    """What a machine is started from."""

    kernel: Path
    device_tree: Path
    user_space: Path  # an initramfs, to which a second archive may be appended


def cache_folder() -> Path:
    base = os.environ.get("XDG_CACHE_HOME") or Path.home() / ".cache"
    return Path(base) / "quellon-board"


def get_parts() -> Parts:
    """Returns the parts, made on the first call and again whenever this recipe has changed."""
    cache = cache_folder()
    cache.mkdir(parents=True, exist_ok=True)
    with open(cache / "lock", "w") as lock:
        fcntl.flock(lock, fcntl.LOCK_EX)
        names = " ".join([KERNEL, *USER_SPACE])
        packages = _once(cache, f"packages-{_digest(names.encode())}", _fetch)
        recipe = _digest(Path(__file__).read_bytes())
        parts = _once(cache, f"parts-{recipe}", lambda folder: _make(packages, folder))
    return Parts(parts / "kernel.img", parts / "board.dtb", parts / "user-space.cpio")


def _digest(data: bytes) -> str:
    return hashlib.sha256(data).hexdigest()[:16]


def _once(cache: Path, name: str, make: Callable[[Path], None]) -> Path:
    """Returns the named folder of the cache; it appears there whole or not at all."""
    folder = cache / name
    if not folder.exists():
        with tempfile.TemporaryDirectory(dir=cache) as work:
            unfinished = Path(work) / name
            unfinished.mkdir()
            make(unfinished)
            unfinished.rename(folder)
    return folder


def _fetch(folder: Path):
    names = [f"{name}:armhf" for name in [_kernel_package(), *USER_SPACE]]
    try:
        run(["apt-get", "download", "-qq", "-o", "APT::Sandbox::User=root", *names], cwd=folder)
    except Failure as failure:
        raise Unavailable(f"the board's packages cannot be had: {failure}") from failure


def _kernel_package() -> str:
    depends = run(["apt-cache", "depends", f"{KERNEL}:armhf"])
    found = re.search(r"Depends: (linux-image-\d[^:\s]*)", depends)
    if not found:
        raise Unavailable(f"apt knows no {KERNEL}:armhf; run board/setup")
    return found.group(1)


def _make(packages: Path, folder: Path):
    kernel, root = folder / "kernel", folder / "root"
    for package in packages.glob("*.deb"):
        unpacked = kernel if package.name.startswith("linux-image-") else root
        run(["dpkg-deb", "-x", package, unpacked])

    (folder / "kernel.img").write_bytes(_unpacked(next(kernel.glob("boot/vmlinuz-*"))))
    next(kernel.glob(f"usr/lib/*/{DEVICE_TREE}")).rename(folder / "board.dtb")
    for options, *change in TREE_CHANGES:
        run(["fdtput", *options.split(), folder / "board.dtb", *change])

    for unneeded in ("usr/share", "usr/lib/arm-linux-gnueabihf/gconv"):
        shutil.rmtree(root / unneeded)
    version = next(kernel.glob("lib/modules/*")).name
    run(["depmod", "-b", kernel, version])
    # Faster variants of the checksums, for instructions the emulated processor has not.
    (kernel / "lib/modules" / version / "modules.softdep").unlink()
    _add_modules(kernel, MODULES, root / "lib/modules/board")
    _add_modules(kernel, FAULT_MODULES, root / "lib/modules/faults")
    _add_modules(kernel, SPARE_MODULES, root / "lib/modules/spare")
    (folder / "user-space.cpio").write_bytes(pack(root))
    shutil.rmtree(kernel)
    shutil.rmtree(root)


def _unpacked(kernel: Path) -> bytes:
    """Returns the kernel unpacked, in the form that names its load address.

    The emulated processor would need four seconds to unpack it, at every start.
    """
    packed = kernel.read_bytes()
    for match in re.finditer(rb"\xfd7zXZ\0", packed):
        try:
            image = lzma.LZMADecompressor().decompress(packed[match.start():])
        except lzma.LZMAError:
            continue  # the unpacker's own copy of the signature
        header = struct.pack(">7I4B32s", 0x27051956, 0, 0, len(image), LOAD_ADDRESS, LOAD_ADDRESS,
                             0, LINUX, ARM, KERNEL_IMAGE, NOT_COMPRESSED, b"board")
        return header + image
    raise RuntimeError(f"{kernel.name} is not packed with xz")


def _add_modules(kernel: Path, modules: list[str], folder: Path):
    """Puts the modules and all they need into `folder`, numbered in the order of loading."""
    version = next(kernel.glob("lib/modules/*")).name
    loaded = []
    for module in modules:
        needed = run(["modprobe", "-d", kernel, "-S", version, "--show-depends", module])
        for path in re.findall(r"^insmod (\S+)", needed, re.MULTILINE):
            if path not in loaded:
                loaded.append(path)
    folder.mkdir(parents=True)
    for number, path in enumerate(loaded):
        # Without its signature a module loads twice as fast.
        run(["arm-linux-gnueabihf-strip", "--strip-debug", "-o",
             folder / f"{number:02}-{Path(path).name}", path])


def pack(folder: Path) -> bytes:
    """Returns the folder as an archive the kernel unpacks at start, everything owned by root."""
    names = b"\0".join(bytes(p.relative_to(folder)) for p in sorted(folder.rglob("*")))
    return subprocess.run(["cpio", "-o", "-0", "-H", "newc", "-R", "0:0", "--quiet"],
                          cwd=folder, input=names, stdout=subprocess.PIPE, check=True).stdout
