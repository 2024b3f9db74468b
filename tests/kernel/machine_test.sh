#!/bin/bash
# SPDX-License-Identifier: Apache-2.0
# The virtual machine is what it says: device-mapper, loop, FUSE and NFS for real, a writable copy of this machine's
# files, the command's own exit status.
#
#   tests/kernel/machine_test.sh
set -euo pipefail
here=$(cd "$(dirname "$0")" && pwd)
marker=$here/machine_test.written

inside='
set -e
grep -qw device-mapper /proc/misc
for kind in fuse nfsd overlay; do grep -qw $kind /proc/filesystems; done
truncate -s 1M /tmp/disk
printf "found here" | dd of=/tmp/disk bs=512 seek=16 conv=notrunc status=none
loop=$(losetup -f --show -r /tmp/disk)
echo "0 8 linear $loop 16" | dmsetup create mapped
[ "$(head -c 10 /dev/mapper/mapped)" = "found here" ]
touch "$1"
echo "with spaces: $2"
exit 9'
status=0
said=$("$here/run-vm" bash -c "$inside" - "$marker" "a  b'c") || status=$?
[[ $status -eq 9 ]] || { echo "exit status $status, expected 9: $said"; exit 1; }
[[ $said == "with spaces: a  b'c" ]] || { echo "unexpected output: $said"; exit 1; }
[[ ! -e $marker ]] || { echo "the guest wrote to this machine"; rm -f "$marker"; exit 1; }

status=0
VM_TIMEOUT=20 "$here/run-vm" sleep 1000 >/dev/null 2>&1 || status=$?
[[ $status -eq 124 ]] || { echo "exit status $status after the time limit, expected 124"; exit 1; }
