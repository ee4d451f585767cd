# A recipe for Yocto, from release 4.0 on. It was not built by those who wrote it.
SUMMARY = "System services of an embedded recording device"
DESCRIPTION = "Brings an SD card into service, keeps recordings within their share of it, feeds the \
hardware watchdog, sets the clock and keeps a log."
SECTION = "libs"
# A license has not been chosen yet.
LICENSE = "CLOSED"

# Where your copy of the sources is; this repository has no public address.
SRC_URI = "git://git.example.org/quellon.git;protocol=https;branch=main"
# The commit of the release.
SRCREV = "INVALID"
S = "${WORKDIR}/git"

inherit cmake pkgconfig systemd

EXTRA_OECMAKE = "-DQUELLON_BUILD_TESTS=OFF -DQUELLON_UNIT_DIR=${systemd_system_unitdir}"

# Sizes and times are part of the interface, 32 bits wide on 32-bit machines: the build takes flags
# for wider ones back. The recipe of an application on such a machine needs the first line, too.
GLIBC_64BIT_TIME_FLAGS = ""
INSANE_SKIP:append = " 32bit-time"
# Other C libraries have wider ones always.
COMPATIBLE_HOST:libc-musl = "null"

PACKAGES =+ "${PN}-recorder ${PN}-tools"
FILES:${PN}-recorder = "${bindir}/recorder ${systemd_system_unitdir}/quellon-recorder.service"
FILES:${PN}-tools = "${bindir}/quellon ${datadir}/bash-completion ${datadir}/quellon/monitoring"

# The library calls fsck.ext4, mkfs.ext4 and sfdisk.
RRECOMMENDS:${PN} = "e2fsprogs-e2fsck e2fsprogs-mke2fs util-linux-sfdisk"

# It arms the watchdog and may restart the machine: whether it runs is the image's choice.
SYSTEMD_PACKAGES = "${PN}-recorder"
SYSTEMD_SERVICE:${PN}-recorder = "quellon-recorder.service"
SYSTEMD_AUTO_ENABLE:${PN}-recorder = "disable"
