# Sourced by the tool scripts: $tool is the program under test. Sets up a scratch directory and
# the fails count, and the two checks every tool script uses.
tmp="$(mktemp -d)"
trap 'rm -rf "$tmp"' EXIT
fails=0
check() {  # name, expected, actual
  if [[ "$2" != "$3" ]]; then
    echo "FAIL $1"; echo "  expected: $2"; echo "  actual:   $3"; fails=$((fails + 1))
  fi
}
# Runs the tool; prints "rc=N lines=N" for stderr, so each error is one line and a status.
status() { set +e; "$tool" "$@" >/dev/null 2>"$tmp/err"; local rc=$?; set -e; echo "rc=$rc lines=$(wc -l <"$tmp/err")"; }
