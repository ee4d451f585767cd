# Shared by the scripts: steps on the terminal, and the packages they need.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1

if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
else
  bold='' plain=''
fi

step() { printf '%s== %s%s\n' "$bold" "$*" "$plain"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Shows the comment at the top of the calling script as its help when it is asked for.
help_if_asked() {
  [[ ${1:-} == -h || ${1:-} == --help ]] || return 0
  sed -n '2,/^$/s/^# \{0,1\}//p' "$0"
  exit 0
}

# Refuses arguments that the calling script does not know; the first one lists those it knows.
refuse_unknown() {
  local known=" $1 " argument
  shift
  for argument in "$@"; do
    [[ $known == *" $argument "* ]] || fail "unknown argument: $argument; see --help"
  done
}

# Installs the Debian packages among the given ones that are missing. An index that a mirror is just
# rewriting does not matter unless the packages cannot be had without it.
need_packages() {
  local missing=() package
  for package in "$@"; do
    dpkg-query -W -f '${Status}' "$package" 2>/dev/null | grep -q 'ok installed' ||
      missing+=("$package")
  done
  ((${#missing[@]} == 0)) && return 0
  command -v apt-get >/dev/null || fail "missing packages, and no apt-get here: ${missing[*]}"
  ((EUID == 0)) || fail "missing packages: ${missing[*]}
Install them as root: apt-get install ${missing[*]}"
  step "Installing ${missing[*]}"
  local log
  log=$(mktemp)
  apt-get update >"$log" 2>&1 </dev/null || true
  if ! DEBIAN_FRONTEND=noninteractive apt-get -o DPkg::Lock::Timeout=300 install -y \
    --no-install-recommends "${missing[@]}" >>"$log" 2>&1 </dev/null; then
    tail -n 30 "$log" >&2
    rm -f "$log"
    fail "could not install: ${missing[*]}"
  fi
  rm -f "$log"
}

# Packages to build the libraries on this machine, and to build and run their tests.
build_packages=(g++ cmake ninja-build)
framework_packages=(clang-22 libgtest-dev libgmock-dev)
test_packages=("${framework_packages[@]}" e2fsprogs util-linux mount fdisk gcovr groff-base
  prometheus python3 systemd)

check_packages=(clang-22 clang-format-14 clang-tidy-14 cppcheck)
bench_packages=(libbenchmark-dev libspdlog-dev nlohmann-json3-dev rapidjson-dev)
mutate_packages=(python3-clang-14)
fuzz_packages=(clang-14 libclang-rt-14-dev)
board_packages=(g++-arm-linux-gnueabihf qemu-user-static googletest)
package_packages=(g++-arm-linux-gnueabihf qemu-user-static diffoscope-minimal dpkg-dev fakeroot file
  gzip lintian make musl-dev pkg-config python3-jsonschema python3-kconfiglib strace systemd)
docs_packages=(doxygen graphviz)

minutes=()  # where they went: a step and its seconds, each

# Runs a step and notes how long it took.
timed() {
  local name=$1 start=$SECONDS
  shift
  "$@"
  minutes+=("$name" $((SECONDS - start)))
}

# The time in what is built, and of the packages' files, unless the environment tells one: that of
# the last commit, as an archive's files have it.
sources_time() {
  [[ -n ${SOURCE_DATE_EPOCH:-} ]] && printf '%s' "$SOURCE_DATE_EPOCH" && return
  [[ -e .git ]] && git log -1 --format=%ct || stat -c %Y VERSION
}

# Configures and builds a preset; prints the compiler's words only if it fails. Build presets named
# TREE-WHAT build what else is in the tree of the preset TREE, such as its tests. What packages are
# made of has the time of the sources; elsewhere that would be compiled anew after each commit.
build() {
  local preset=$1 log=build/$1.log time
  shift
  time=$(sources_time)
  case $preset in
  package* | armhf* | time64*) local -x SOURCE_DATE_EPOCH=$time ;;
  esac
  step "Building ($preset)"
  mkdir -p build
  if ! { cmake --preset "${preset%%-*}" "$@" && cmake --build --preset "$preset"; } \
    >"$log" 2>&1; then
    tail -n 50 "$log" >&2
    fail "the build failed; see $log"
  fi
  if grep -q 'warning:' "$log"; then
    grep -A5 'warning:' "$log" >&2
    fail "the build has warnings; see $log"
  fi
}

# Runs the tests of a test preset; report_results tells what came of them. On a terminal ctest shows
# how far it is; elsewhere what passes is left out.
run_tests() {
  step "Testing ($1)"
  mkdir -p build/results
  rm -f "build/results/$1.xml"
  if [[ -t 1 ]]; then
    ctest --preset "$1" || true
  else
    # Also where a test prints bytes that are no text.
    ctest --preset "$1" | grep -avE '^ +Start +[0-9]+: | Passed +[0-9.]+ sec$' || true
  fi
  [[ -s build/results/$1.xml ]] || fail "no tests were run: ctest --preset $1"
}

# What was skipped and why, what failed, where the minutes went, and the closing line.
report_results() {
  tests/results.py --minutes "${minutes[@]}" --reports "${@/%/.xml}"
}
