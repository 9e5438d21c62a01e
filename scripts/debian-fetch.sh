# shellcheck shell=bash
# Sourced by the scripts that need Debian packages of another architecture
# (armhf) without installing them: fetch_debs DIR PACKAGE... downloads the
# packages (names may carry :arch and =version) into DIR/debs through a private
# package list in DIR, so the machine's dpkg and apt configuration stay
# untouched. The list holds armhf and this machine's own architecture.

fetch_debs() {
  # Absolute: apt reads relative Dir:: paths against its own directories.
  local dir
  dir=$(realpath -m "$1")
  shift
  local host_arch
  host_arch=$(dpkg --print-architecture)
  mkdir -p "$dir/lists/partial" "$dir/cache/archives/partial" "$dir/debs"
  local apt=(apt-get -q -o "Dir::State::Lists=$dir/lists" -o "Dir::Cache=$dir/cache"
             -o APT::Architecture=armhf -o APT::Architectures::=armhf -o "APT::Architectures::=$host_arch"
             -o APT::Sandbox::User=root)
  if [ ! -f "$dir/lists/updated" ]; then
    # An index of some other suite may fail to come; the download says whether
    # the ones that hold the packages did.
    "${apt[@]}" update >"$dir/update.log" 2>&1 || true
    touch "$dir/lists/updated"
  fi
  if ! (cd "$dir/debs" && "${apt[@]}" download "$@" >"$dir/download.log" 2>&1); then
    cat "$dir/update.log" "$dir/download.log" >&2
    echo "cannot fetch from Debian: $*" >&2
    return 1
  fi
}
