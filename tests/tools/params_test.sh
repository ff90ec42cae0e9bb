#!/usr/bin/env bash
# End-to-end checks of vaporix params: the list, setting values, and parameter files.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

check "list" status_is 0 "$tool" params
check "list row" stdout_has "Physically Based Fire"
check "list lines" [ "$(wc -l <"$tmp/stdout")" -eq 265 ]
check "json" status_is 0 "$tool" params --json
check "json content" $py - "$tmp/stdout" <<'PY'
import json, sys
p = {x["name"]: x for x in json.load(open(sys.argv[1]))["params"]}
assert len(p) == 264
r = p["rendstep"]
assert (r["id"], r["type"], r["default"], r["range"]) == (35, "int", 80, [1, 10000])
assert r["control"] == {"map": 0, "kind": "spinner", "ids": [1048, 1049]}
assert p["rendinput"]["default"] == ""
assert p["prv_t_color2"]["default"] == [1, 1, 0]
assert p["earg"]["values"][6] == {"value": 10, "text": "Fuel"}
assert p["epower_t.epower_t_p"]["tab"] and p["epower_t.epower_t_p"]["animatable"]
assert p["version"]["block"] == "preview" and p["version"]["default"] == 29
assert "value" not in r
PY

file="$tmp/set one.json"
check "save" status_is 0 "$tool" params --set rendstep=40 --set earg=Smoke --set "simple_color=0.1,0.2,0.3" \
    --set "tpower_t.tpower_t_p=[0,4000]" --set "prv_prt_name[1]=sparks" --set "t2f@160=5" \
    --set play_speed=99 --set "rendinput=/c/a_####.vxg" --save "$file" --changed
check "saved file" $py - "$file" <<'PY'
import json, sys
p = json.load(open(sys.argv[1]))["params"]
assert p["rendstep"] == 40 and p["earg"] == 2
assert p["simple_color"] == [0.1, 0.2, 0.3]
assert p["tpower_t.tpower_t_p"] == [0, 4000]
assert p["prv_prt_name"] == ["", "sparks"]
assert p["t2f"] == {"keys": [[160, 5]]}
assert p["play_speed"] == 10
assert "emult" not in p
PY
check "load" status_is 0 "$tool" params --load "$file" --json
check "load values" $py - "$tmp/stdout" <<'PY'
import json, sys
p = {x["name"]: x for x in json.load(open(sys.argv[1]))["params"]}
assert p["rendstep"]["value"] == 40
assert p["rendinput"]["value"] == "/c/a_####.vxg"
assert p["emult"]["value"] == 1
assert p["ex"]["value"] is None
PY

# An old set is upgraded on load.
echo '{"params": {"version": 16, "lights": 0, "rendMode": 4}}' >"$tmp/old.json"
check "upgrade" status_is 0 "$tool" params --load "$tmp/old.json" --save "$tmp/new.json" --changed
check "upgrade note" stderr_has "upgraded a version 16 set to 29"
check "upgraded" $py - "$tmp/new.json" <<'PY'
import json, sys
p = json.load(open(sys.argv[1]))["params"]
assert p["al_enable"] is False and p["rendMode"] == 1 and "version" not in p
assert p["dontshow"] == [0]
PY

# An old set's cache prefix becomes the pattern of the sequence beside it.
mkdir -p "$tmp/seq"
: >"$tmp/seq/fire_0001.vxg"
: >"$tmp/seq/fire_0002.vxg"
echo "{\"params\": {\"version\": 7, \"rendinput\": \"$tmp/seq/fire_\"}}" >"$tmp/prefix.json"
check "prefix upgrade" status_is 0 "$tool" params --load "$tmp/prefix.json" --save "$tmp/prefixed.json"
check "prefix found" $py - "$tmp/prefixed.json" "$tmp/seq/fire_####.vxg" <<'PY'
import json, sys
p = json.load(open(sys.argv[1]))["params"]
assert p["rendinput"] == sys.argv[2], p["rendinput"]
PY

# Refusals.
check "unknown name" status_is 2 "$tool" params --set nope=1
check "unknown name text" stderr_has "unknown parameter 'nope'"
check "bad value" status_is 2 "$tool" params --set rendstep=abc
check "tab needs index" status_is 2 "$tool" params --set "epower_t.epower_t_p=3"
check "not keyable" status_is 2 "$tool" params --set "rendstep@10=3"
check "changed alone" status_is 2 "$tool" params --changed
check "missing file" status_is 1 "$tool" params --load "$tmp/none.json"
echo '{"params": {"rendstep": "x"}}' >"$tmp/bad.json"
check "bad file" status_is 1 "$tool" params --load "$tmp/bad.json"
check "bad file text" stderr_has "parameter 'rendstep'"
echo '{"params": {"nope": 1}}' >"$tmp/warn.json"
check "unknown in file" status_is 0 "$tool" params --load "$tmp/warn.json"
check "unknown in file text" stderr_has "unknown parameter 'nope' skipped"
check "help" status_is 0 "$tool" params --help

finish params
