# Functions for the bash scripts. Source this file before any cd, because $0 may be relative.
# shellcheck shell=bash

script=$(realpath "$0")
root=$(realpath "${BASH_SOURCE[0]%/*}/../..")
# Debian installs nginx and fcgiwrap in /usr/sbin, which is not in a user's PATH.
PATH=$PATH:/usr/sbin:/sbin

fail() {
  echo "${0##*/}: $1" >&2
  exit 1
}

# For scripts that take the list of files from git.
need_git() {
  git ls-files --error-unmatch script/test >/dev/null || fail "run this in a clone of the repository, with git"
}

# Prints the URL of the Debian mirror that this machine installs from.
debian_mirror() {
  apt-get indextargets --format '$(REPO_URI)' 'Created-By: Packages' 'Label: Debian' | sed q
}

# Prints the comment at the head of the script and exits if the first argument is -h or --help.
#   answer_help "$@"
answer_help() {
  case "${1:-}" in
    -h | --help)
      sed -n '2,/^[^#]/ { /^#/ s/^# \?//p }' "$script"
      exit 0
      ;;
  esac
}

# Answers --help. Fails if there are more than MAX arguments, or if the first one is another option.
#   arguments MAX "$@"
arguments() {
  local max=$1
  shift
  answer_help "$@"
  if [[ ${1:-} == -* ]]; then max=0; fi
  if [ $# -gt "$max" ]; then fail "unexpected argument \"${*:max+1:1}\"; see --help"; fi
}

# Prints a UDP port that no program of this machine uses, below the range from which the kernel
# assigns ports. Without this check, a second server could open the port of a first one.
free_port() {
  local port
  while port=$((20000 + RANDOM % 10000)); grep -qi ":$(printf '%04X' "$port") " /proc/net/udp; do :; done
  echo "$port"
}

# Waits up to 10 seconds until a server is ready. FILE is the server's standard output.
#   wait_for_server PROCESS_ID FILE
wait_for_server() {
  for _ in $(seq 200); do
    if grep -q -- '^---' "$2"; then return; fi
    kill -0 "$1" 2>/dev/null || break
    sleep 0.05
  done
  fail "the server did not start: $(head "$2")"
}
