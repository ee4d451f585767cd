#!/bin/sh
# The least that brings a good card into service: what InitDisk() does, as commands.
card=/dev/mmcblk1p1
place=/mnt/sdcard/

# The card is not mounted, which is found out by unmounting it.
umount $place
for _ in 1 2 3 4 5 6 7 8 9; do
  umount -f $place
  sync
  sleep 0.1
done
umount -f $place
mount -t ext4 -o noexec,noatime,nodiratime,data=writeback $card $place

printf velmor >${place}check.tmp
sync
umount $place
fsck -f -y $card
mount -o noatime,nodiratime,data=writeback $card $place
rm ${place}check.tmp
sleep 1
