#!/usr/bin/env bash
# Runs a command of the repository on a Debian 12 that has nothing but git: the commands at the root
# have to install whatever they need. Uncommitted changes are not included.
#
#   Tools/fresh-machine.sh FOLDER COMMAND...
#
#   Tools/fresh-machine.sh /var/tmp/fresh ./run
#
# FOLDER is made with debootstrap when it does not exist, and used as it is when it does: delete it
# for another fresh start. Needs root and the package debootstrap.
set -euo pipefail

if [ $# -lt 2 ]; then
  sed -n 's/^# \{0,1\}//; 2,10p' "$0" >&2
  exit 2
fi
folder=$1
shift
clone=root/ostravel
repository=$(git -C "$(dirname "$0")" rev-parse --show-toplevel)

if [ ! -e "$folder" ]; then
  debootstrap --variant=minbase --include=git,ca-certificates bookworm "$folder" \
    http://deb.debian.org/debian
fi
cp /etc/resolv.conf "$folder/etc/resolv.conf"
if [ -e "$folder/$clone" ]; then
  git -C "$folder/$clone" pull --quiet "$repository" HEAD
else
  git clone --quiet "$repository" "$folder/$clone"
fi

# The folder becomes the root of a mount namespace, not of a chroot: in there the paths of processes
# are as long as they are here.
export FOLDER=$folder CLONE=/$clone
exec unshare --mount -- bash -euc '
  mount --make-rprivate /
  mount --bind "$FOLDER" "$FOLDER"
  cd "$FOLDER"
  mount -t proc proc proc
  mount --rbind /sys sys
  mount --rbind /dev dev
  mkdir -p root/outside
  pivot_root . root/outside
  umount -l /root/outside
  cd "$CLONE"
  exec env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root TERM="${TERM-dumb}" "$@"
' bash "$@"
