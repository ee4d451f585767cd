# Shared by the scripts: steps on the terminal, and the packages they need.
# shellcheck shell=bash

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root" || exit 1

if [[ -t 1 ]]; then
  bold=$'\e[1m' plain=$'\e[0m'
else
  bold='' plain=''
fi

exec 3>&1  # what the user sees, also while a step writes elsewhere

step() { printf '%s== %s%s\n' "$bold" "$*" "$plain"; }

fail() {
  printf '%s: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Seconds, for people: 1:05.
minutes() { printf '%d:%02d' $(($1 / 60)) $(($1 % 60)); }

# Runs a command; meanwhile a terminal shows how long that has taken.
timed() {
  [[ -t 3 ]] || { "$@"; return; }
  local status=0 clock
  show_clock &
  clock=$!
  "$@" || status=$?
  kill "$clock"
  wait "$clock" 2>/dev/null || true
  printf '\r\e[K' >&3
  return "$status"
}

# Ends with the script, too, however that ends.
show_clock() {
  local start=$SECONDS
  while sleep 1 && kill -0 $$ 2>/dev/null; do
    printf '\r   %s' "$(minutes $((SECONDS - start)))" >&3
  done
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
  timed apt-get update >"$log" 2>&1 </dev/null || true
  if ! DEBIAN_FRONTEND=noninteractive timed apt-get -o DPkg::Lock::Timeout=300 install -y \
    --no-install-recommends "${missing[@]}" >>"$log" 2>&1 </dev/null; then
    tail -n 30 "$log" >&2
    rm -f "$log"
    fail "could not install: ${missing[*]}"
  fi
  rm -f "$log"
}

# Packages to build the libraries on this machine, and to build and run their tests.
build_packages=(g++ cmake ninja-build)
test_packages=(libgtest-dev libgmock-dev e2fsprogs util-linux mount fdisk gcovr libxml2-utils
  python3)

check_packages=(clang-14 clang-format-14 clang-tidy-14 cppcheck)
bench_packages=(libbenchmark-dev libspdlog-dev nlohmann-json3-dev rapidjson-dev)
fuzz_packages=(clang-14 libclang-rt-14-dev libgtest-dev libgmock-dev libxml2-utils)

# Configures and builds a preset; prints the compiler's words only if it fails.
build() {
  local preset=$1 log=build/$1.log start=$SECONDS
  shift
  step "Building ($preset)"
  mkdir -p build
  if ! timed build_quietly "$preset" "$@" >"$log" 2>&1; then
    tail -n 50 "$log" >&2
    fail "the build failed; see $log"
  fi
  if grep -q 'warning:' "$log"; then
    grep -A5 'warning:' "$log" >&2
    fail "the build has warnings; see $log"
  fi
  printf '   %s\n' "$(minutes $((SECONDS - start)))"
}

build_quietly() {
  local preset=$1
  shift
  cmake --preset "$preset" "$@" && cmake --build --preset "$preset"
}

passed=0 failed=0 skipped=0

# The tests of ctest's report that said that they were skipped, and those that failed. A test that
# could not be started is reported as a skipped one, too.
skips='//testcase[skipped[starts-with(@message, "SKIP_")]]'
failures='//testcase[failure or skipped[not(starts-with(@message, "SKIP_"))]]'

# Each reason once. GoogleTest gives it on a line after "Skipped", other tests on their last one.
show_skip_reasons() {
  local report=$1 number
  for ((number = 1; number <= $(ask "$report" "count($skips)"); ++number)); do
    ask "$report" "string(($skips)[$number]/system-out)" |
      awk '/: Skipped$/ { getline; reason = $0; exit } NF { reason = $0 } END { print reason }'
  done | sort | uniq -c | sed 's/^/   skipped: /'
}

show_failures() {
  local report=$1 number
  for ((number = 1; number <= $(ask "$report" "count($failures)"); ++number)); do
    printf '%s-- %s%s\n' "$bold" "$(ask "$report" "string(($failures)[$number]/@name)")" "$plain"
    ask "$report" "string(($failures)[$number]/system-out)" | tail -n 60
  done
}

ask() { xmllint --xpath "$2" "$1"; }

# Runs the tests of a preset and counts them; further arguments go to ctest.
run_tests() {
  local preset=$1 report=build/$1/tests-$RANDOM.xml log start=$SECONDS
  log=${report%.xml}.log
  shift
  step "Testing ($preset) $*"
  timed ctest --test-dir "build/$preset" --output-junit "$root/$report" --output-on-failure \
    --no-tests=error "$@" >"$log" 2>&1 || true
  [[ -s $report ]] || fail "no tests were run; see $log"
  local all bad skip
  all=$(ask "$report" 'count(//testcase)')
  bad=$(ask "$report" "count($failures)")
  skip=$(ask "$report" "count($skips)")
  ((all > 0)) || fail "no tests were run; see $log"
  show_failures "$report"
  sed -nE 's/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: ([^ ]+) .*\*{3}(Failed|Timeout|Exception|Skipped|Not Run)/   \2: \1 /p' "$log"
  show_skip_reasons "$report"
  printf '   %d passed, %d failed, %d skipped in %s (%s)\n' \
    $((all - bad - skip)) "$bad" "$skip" "$(minutes $((SECONDS - start)))" "$log"
  passed=$((passed + all - bad - skip))
  failed=$((failed + bad))
  skipped=$((skipped + skip))
}

skip_status=77  # of a check or test that could not be made here

# A check that is one test: its output is shown only if it fails.
run_check() {
  local name=$1 log=build/check-$RANDOM.log start=$SECONDS status
  shift
  step "$name"
  mkdir -p build
  timed "$@" >"$log" 2>&1 && status=0 || status=$?
  if ((status == 0)); then
    passed=$((passed + 1))
  elif ((status == skip_status)); then
    skipped=$((skipped + 1))
    printf '   skipped: %s\n' "$(tail -n 1 "$log")"
  else
    failed=$((failed + 1))
    tail -n 60 "$log"
    printf '   failed; see %s\n' "$log"
  fi
  printf '   %s\n' "$(minutes $((SECONDS - start)))"
}

started=()  # names and processes of checks that are under way

# Starts a check beside the steps that follow.
start_check() {
  local name=$1
  shift
  nice -n 15 "$@" >"build/${name%%[ ,]*}-beside.log" 2>&1 &
  started+=("$name" $!)
}

# Waits for the checks that were started.
finish_checks() {
  local i
  for ((i = 0; i < ${#started[@]}; i += 2)); do
    run_check "${started[i]}" output_of "${started[i + 1]}" "build/${started[i]%%[ ,]*}-beside.log"
  done
}

output_of() {
  local status=0
  wait "$1" || status=$?
  cat "$2"
  return "$status"
}

# The closing line, and the exit status.
report_results() {
  ((skipped == 0)) || printf '%d tests were skipped; the reasons are above\n' "$skipped"
  step "Done in $(minutes $SECONDS)"
  printf '%d passed, %d failed\n' "$passed" "$failed"
  ((failed == 0))
}
