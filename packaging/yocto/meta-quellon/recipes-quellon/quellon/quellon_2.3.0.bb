SUMMARY = "System services of an embedded recording device"
DESCRIPTION = "Brings an SD card into service, keeps recordings within their share of it, feeds the \
hardware watchdog, sets the clock and keeps a log."
SECTION = "libs"

# No licence has been chosen yet: all rights are reserved. Releases differ in whether the flag has
# the prefix.
LICENSE = "LicenseRef-Quellon"
NO_GENERIC_LICENSE[LicenseRef-Quellon] = "LICENSE"
NO_GENERIC_LICENSE[Quellon] = "LICENSE"
LIC_FILES_CHKSUM = "file://LICENSE;md5=d8b25412b293a78d8c0dd681c2671aee"

# An archive on a server of your own: SRC_URI = "https://...;sha256sum=...".
SRC_URI = "file://${QUELLON_ARCHIVES}/${BP}.tar.gz"

inherit cmake pkgconfig systemd

EXTRA_OECMAKE = "-DQUELLON_BUILD_TESTS=OFF -DQUELLON_UNIT_DIR=${systemd_system_unitdir}"

PACKAGES =+ "${PN}-recorder ${PN}-tools"
FILES:${PN}-dev += "${datadir}/quellon/armhf.cmake"
FILES:${PN}-recorder = "${bindir}/quellon-recorder ${systemd_system_unitdir}/quellon-recorder.service \
    ${systemd_system_unitdir}-preset/50-quellon-recorder.preset"
FILES:${PN}-tools = "${bindir}/quellon ${datadir}/bash-completion ${datadir}/quellon/monitoring"

# The library calls fsck, which calls fsck.ext4, and mkfs.ext4, which calls badblocks, and sfdisk.
RRECOMMENDS:${PN} = "e2fsprogs-badblocks e2fsprogs-e2fsck e2fsprogs-mke2fs util-linux-fsck \
    util-linux-sfdisk"

# It arms the watchdog and may restart the machine: whether it runs is the image's choice.
SYSTEMD_PACKAGES = "${PN}-recorder"
SYSTEMD_SERVICE:${PN}-recorder = "quellon-recorder.service"
SYSTEMD_AUTO_ENABLE:${PN}-recorder = "disable"
