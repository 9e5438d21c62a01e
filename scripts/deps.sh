#!/usr/bin/env bash
# Installs from Debian whatever the build and the tests need and the machine lacks.
set -euo pipefail

packages=(g++ cmake make libgtest-dev libgmock-dev zlib1g-dev libsodium-dev minisign signify-openbsd
          tftpd-hpa tftp-hpa dnsmasq-base u-boot-tools valgrind)
[ "${BRIVLO_DEPS_EXTRA:-}" ] && read -r -a extra <<<"$BRIVLO_DEPS_EXTRA" && packages+=("${extra[@]}")

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing: ${missing[*]}"
SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
# The tftpd-hpa package would start a system daemon; the tests start their own
# (dnsmasq-base is dnsmasq without its service).
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
