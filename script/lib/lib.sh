# Functions for the bash scripts. Source it before any cd.
# shellcheck shell=bash

script=$(realpath "$0")
root=$(realpath "${BASH_SOURCE[0]%/*}/../..")

fail() {
  echo "${0##*/}: $1" >&2
  exit 1
}

# For scripts that get the list of files from git.
need_git() {
  git ls-files --error-unmatch script/test >/dev/null || fail "needs git and a clone of the repository"
}

# The Debian mirror that this machine installs from.
debian_mirror() {
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' | sed q
}

# Prints the comment at the head of a script as its help. No script takes more arguments than it
# names.
#   arguments MOST "$@"
arguments() {
  local most=$1
  shift
  case "${1:-}" in
    -h | --help)
      sed -n '2,/^[^#]/ { /^#/ s/^# \?//p }' "$script"
      exit 0
      ;;
  esac
  if [[ ${1:-} == -* ]]; then most=0; fi
  if [ $# -gt "$most" ]; then fail "takes no argument like \"${*:most+1:1}\"; see --help"; fi
}

# A free UDP port of this machine, below the range from which the kernel assigns ports. Two servers may
# share a port unnoticed.
free_port() {
  local port
  while port=$((20000 + RANDOM % 10000)); grep -qi ":$(printf '%04X' "$port") " /proc/net/udp; do :; done
  echo "$port"
}

# Waits until the server with this process id has printed to this file that it is up.
wait_for_server() {
  for _ in $(seq 200); do
    if grep -q -- '^---' "$2"; then return; fi
    kill -0 "$1" 2>/dev/null || break
    sleep 0.05
  done
  fail "the server does not start: $(head "$2")"
}
