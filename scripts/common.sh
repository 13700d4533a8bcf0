# Shared by the scripts of this folder; sourced, not run.
# shellcheck shell=bash

cd "$(dirname "${BASH_SOURCE[0]}")/.." || exit 1

# Where tc and its like are, which a normal user's path on Debian lacks.
PATH=$PATH:/usr/sbin:/sbin

# Says what comes next, and how long the first of the scripts has been at work.
export KORVANE_BEGAN=${KORVANE_BEGAN:-$(date +%s)}
say() {
  local seconds=$(($(date +%s) - KORVANE_BEGAN))
  printf '== [%d:%02d] %s\n' $((seconds / 60)) $((seconds % 60)) "$*"
}

as_root() {
  if [ "$(id -u)" -eq 0 ]; then
    "$@"
  elif command -v sudo >/dev/null; then
    sudo "$@"
  else
    printf 'This needs root, and sudo is not installed: %s\n' "$*" >&2
    return 1
  fi
}

# check NAME COMMAND...: runs it, counts it in `passed` or `failed`, and shows what a failed one said at last. What it runs
# has to look at each status itself: bash takes no notice of `set -e` within a condition.
check() {
  local name=$1 log
  shift
  log=$(mktemp)
  if "$@" >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "  ok      $name"
  else
    failed=$((failed + 1))
    echo "  FAILED  $name"
    tail -n 40 "$log" | sed 's/^/          /'
  fi
  rm -f "$log"
}

# How many tests passed and how many failed, by the closing lines of pytest in a file.
pytest_counts() {
  awk '/ in [0-9.]+s/ {for (i = 2; i <= NF; i++) {if ($i ~ /^passed/) good += $(i - 1); if ($i ~ /^(failed|error)/) bad += $(i - 1)}}
    END {print good + 0, bad + 0}' "$1"
}

# Runs a command that changes what is installed: for one script at a time, as two may run side by side.
change_packages() { as_root flock /var/lock/korvane-packages "$@"; }

# Installs the Debian packages that are missing, and says which.
need() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing+=("$package")
  done
  [ "${#missing[@]}" -eq 0 ] && return 0
  say "Installing: ${missing[*]}"
  # Behind whatever else installs packages on this machine. The lists of a fresh machine may be missing or old; a failed
  # first try tells.
  # shellcheck disable=SC2016
  change_packages env DEBIAN_FRONTEND=noninteractive sh -c '
    install() { apt-get install -y -qq --no-install-recommends -o DPkg::Lock::Timeout=600 "$@" >/dev/null; }
    install "$@" 2>/dev/null || { apt-get update -qq && install "$@"; }' sh "${missing[@]}"
}

# What the parts of the project are built with.
for_library=(g++ cmake ninja-build libcxx-serial-dev)
for_tools=(libcli11-dev nlohmann-json3-dev libfmt-dev) # the first also for the simulator
for_tests=(libgtest-dev libgmock-dev)
for_ros2=(cyclonedds-dev cyclonedds-tools)
for_python=(pybind11-dev python3-dev python3-numpy)
for_everything=("${for_library[@]}" "${for_tools[@]}" "${for_tests[@]}" "${for_ros2[@]}" "${for_python[@]}"
  libbenchmark-dev)

# Everything there is, with tests and benchmarks, in build/dev.
build_dev() {
  need "${for_everything[@]}"
  build_preset dev
}

# build_preset PRESET [-DSETTING]... [TARGET]...: configures and builds it; quiet unless it fails.
build_preset() {
  local preset=$1 settings=() targets=() log
  shift
  while [[ ${1:-} == -D* ]]; do
    settings+=("$1")
    shift
  done
  [ $# -eq 0 ] || targets=(--target "$@")
  log=$(mktemp)
  say "Building: $preset"
  if ! { cmake --preset "$preset" "${settings[@]}" && cmake --build --preset "$preset" "${targets[@]}"; } >"$log" 2>&1; then
    cat "$log" >&2
    rm -f "$log"
    return 1
  fi
  rm -f "$log"
}
