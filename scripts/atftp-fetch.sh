#!/usr/bin/env bash
# Unpacks Debian's atftpd and atftp (this machine's architecture) into DIR/root
# without installing them: the atftpd package conflicts with tftpd-hpa (both
# ship /usr/sbin/in.tftpd), whose in.tftpd the tests also run. The tests and
# the benchmarks start DIR/root/usr/sbin/atftpd and DIR/root/usr/bin/atftp.
#
#   scripts/atftp-fetch.sh DIR
set -euo pipefail
cd "$(dirname "$0")/.."
dir=$(realpath -m "${1:?usage: scripts/atftp-fetch.sh DIR}")
if [ -x "$dir/root/usr/sbin/atftpd" ] && [ -x "$dir/root/usr/bin/atftp" ]; then
  exit 0
fi
. scripts/debian-fetch.sh
arch=$(dpkg --print-architecture)
fetch_debs "$dir" "atftpd:$arch" "atftp:$arch"
rm -rf "$dir/root"
for deb in "$dir"/debs/atftpd_*.deb "$dir"/debs/atftp_*.deb; do
  dpkg-deb -x "$deb" "$dir/root"
done
