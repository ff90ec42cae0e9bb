# Shared helpers of the tool's end-to-end scripts: a scratch folder, named checks, and the
# status and output of one command. Source it; end the script with `finish`.
py=/usr/bin/python3
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
passed=0
failed=0
check() {  # check NAME CONDITION...
    local name="$1"
    shift
    if "$@"; then passed=$((passed + 1)); else failed=$((failed + 1)); echo "FAILED: $name"; fi
}
status_is() {  # status_is EXPECTED COMMAND...: output goes to $tmp/stdout and $tmp/stderr
    local want="$1"
    shift
    "$@" >"$tmp/stdout" 2>"$tmp/stderr" </dev/null
    [ "$?" -eq "$want" ]
}
stderr_has() { grep -qF -- "$1" "$tmp/stderr"; }
stdout_has() { grep -qF -- "$1" "$tmp/stdout"; }
stderr_empty() { [ ! -s "$tmp/stderr" ]; }
stderr_lines() { [ "$(wc -l <"$tmp/stderr")" -eq "$1" ]; }
finish() {  # finish [LABEL]: prints the tally and fails when a check failed
    echo "${1:+$1: }$passed passed, $failed failed"
    [ "$failed" -eq 0 ]
}
