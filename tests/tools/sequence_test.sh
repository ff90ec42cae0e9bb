#!/usr/bin/env bash
# End-to-end checks of vaporix ls, rm, cp and mv on real sequences with awkward names.
set -u
tool="$1"
source "$(dirname "$0")/testlib.sh"

# Frames 1, 2, 3, 5, 9 of a sequence in a folder with spaces and non-ASCII letters, plus an
# unpadded frame 12 that only the .vxg second pass finds, and names that don't belong.
src="$tmp/sim r\xc3\xa9sultat"
src=$(printf "$src")
mkdir -p "$src"
for f in 1 2 3 5 9; do head -c $((f * 100)) /dev/zero >"$src/fire $(printf %04d $f).vxg"; done
head -c 7 /dev/zero >"$src/fire 12.vxg"
touch "$src/fire x.vxg" "$src/fire 0004.vxg.bak" "$src/smoke 0004.vxg"

check "ls" status_is 0 "$tool" ls "$src/fire ####.vxg"
check "ls text" stdout_has "frames    1 .. 12, 6 present, 6 missing: 4, 6-8, 10-11"
check "ls size" stdout_has "(2007 bytes)"
check "ls json" status_is 0 "$tool" ls "$src/fire <frame04>.vxg" --json --files
check "ls json content" $py - "$tmp/stdout" "$src" <<'PY'
import json, sys
j = json.load(open(sys.argv[1]))
src = sys.argv[2]
assert j["count"] == 6 and j["firstFrame"] == 1 and j["lastFrame"] == 12, j
assert j["missingCount"] == 6 and j["missing"] == [[4, 4], [6, 8], [10, 11]], j
assert j["totalBytes"] == 2007 and j["duplicateFrames"] == [], j
assert [f["frame"] for f in j["files"]] == [1, 2, 3, 5, 9, 12], j["files"]
assert j["files"][-1]["path"] == src + "/fire 12.vxg" and j["files"][-1]["bytes"] == 7
PY
check "ls nothing" status_is 1 "$tool" ls "$tmp/none_####.vxg"
check "ls nothing says so" stderr_has "no files match"
check "ls usage" status_is 2 "$tool" ls
check "ls help" status_is 0 "$tool" ls --help

# Copy keeps the source; a second copy refuses to overwrite; --force does.
check "cp" status_is 0 "$tool" cp "$src/fire ####.vxg" "$tmp/copy/f_%05d.vxg"
check "cp result" test -f "$tmp/copy/f_00012.vxg" -a -f "$src/fire 12.vxg"
check "cp again" status_is 1 "$tool" cp "$src/fire ####.vxg" "$tmp/copy/f_%05d.vxg"
check "cp again says" stderr_has "give --force"
check "cp force" status_is 0 "$tool" cp -q "$src/fire ####.vxg" "$tmp/copy/f_%05d.vxg" --force
check "cp into folder" status_is 0 "$tool" cp "$src/fire ####.vxg" "$tmp/copy"
check "cp into folder names" test -f "$tmp/copy/fire 0009.vxg" -a -f "$tmp/copy/fire 0012.vxg"

# A move that fails half way moves everything back: target names of one digit fit the
# system's 255-byte limit, the two-digit one of frame 12 doesn't (true for root as well).
long=$(printf 'w%.0s' $(seq 249))
mkdir -p "$tmp/moved"
echo old >"$tmp/moved/${long}_9.vxg"
check "mv fails" status_is 1 "$tool" mv "$tmp/copy/f_%05d.vxg" "$tmp/moved/${long}_%d.vxg" --force
check "mv says rolled back" stderr_has "source sequence is whole"
check "mv left source" status_is 0 "$tool" ls "$tmp/copy/f_#####.vxg"
check "mv left source whole" stdout_has "files     6"
check "mv put back the replaced file" grep -qx old "$tmp/moved/${long}_9.vxg"
check "mv left nothing else" test "$(ls -A "$tmp/moved" | wc -l)" -eq 1
mkdir -p "$tmp/moved/m_0005.vxg"
check "mv onto a folder" status_is 1 "$tool" mv "$tmp/copy/f_%05d.vxg" "$tmp/moved/m_####.vxg" --force
check "mv onto a folder says" stderr_has "is a folder"
check "mv" status_is 0 "$tool" mv "$tmp/copy/f_#####.vxg" "$tmp/moved2\\m_<frame03>.vxg"
check "mv result" test -f "$tmp/moved2/m_012.vxg" -a ! -e "$tmp/copy/f_00012.vxg"
check "mv onto itself" status_is 1 "$tool" mv "$tmp/moved2/m_###.vxg" "$tmp/moved2/m_%03d.vxg"

# Per-file summaries read each header; pack writes through a pattern; info reads through one,
# also in a folder whose name holds a '#', and finds unpadded frames in the second pass.
real="$tmp/real #1"
mkdir -p "$real"
head -c 48 /dev/zero >"$tmp/zero.f32"
for f in 3 5; do "$tool" pack --size 3 2 2 --channel 1="$tmp/zero.f32" --frame $f -o "$real/r_####.vxg"; done
"$tool" pack --size 3 2 2 --channel 2="$tmp/zero.f32" --frame 12 -o "$real/u_%d.vxg"
check "pack through a pattern" test -f "$real/r_0003.vxg" -a -f "$real/r_0005.vxg" -a -f "$real/u_12.vxg"
check "ls files" status_is 0 "$tool" ls "$real/r_####.vxg" --files
check "ls files grid" stdout_has "3x2x2"
check "ls files json" status_is 0 "$tool" ls "$real/r_####.vxg" --files --json
check "ls files json content" $py - "$tmp/stdout" <<'PY'
import json, sys
j = json.load(open(sys.argv[1]))
assert [f["status"] for f in j["files"]] == [0, 0], j
assert [f["headerFrame"] for f in j["files"]] == [3, 5], j
assert j["files"][0]["gridSize"] == [3, 2, 2] and j["files"][0]["channels"] == [1], j
PY
check "ls files broken" status_is 0 "$tool" ls "$src/fire ####.vxg" --files --json
check "ls files broken status" $py -c "
import json; j = json.load(open('$tmp/stdout'))
assert all(f['status'] != 0 and 'gridSize' not in f for f in j['files']), j"
check "info plain file in a # folder" status_is 0 "$tool" info "$real/r_0003.vxg"
check "info pattern frame" status_is 0 "$tool" info --json "$real/r_####.vxg" --frame 5
check "info pattern frame is 5" stdout_has '"frameNumber": 5'
check "info pattern missing frame" status_is 1 "$tool" info "$real/r_<frame04>.vxg" --frame 4
check "info pattern missing says" stderr_has "no file for frame 4"
check "info second pass" status_is 0 "$tool" info --json "$real/u_####.vxg" --frame 12
check "info second pass frame" stdout_has '"frameNumber": 12'

# rm asks; without a terminal it refuses unless --yes.
check "rm refuses" status_is 1 "$tool" rm "$tmp/moved2/m_###.vxg"
check "rm says why" stderr_has "no terminal"
check "rm kept" test -f "$tmp/moved2/m_001.vxg"
if command -v script >/dev/null; then
    (sleep 0.5; echo n) | script -qec "'$tool' rm '$tmp/moved2/m_###.vxg'" /dev/null >/dev/null
    check "rm answered no" test -f "$tmp/moved2/m_001.vxg"
    (sleep 0.5; echo y) | script -qec "'$tool' rm '$tmp/moved2/m_###.vxg'" /dev/null >/dev/null
    check "rm answered yes" test ! -e "$tmp/moved2/m_001.vxg"
fi
check "rm yes" status_is 0 "$tool" rm --yes "$src/fire ####.vxg"
check "rm only the sequence" test -f "$src/fire x.vxg" -a -f "$src/smoke 0004.vxg" \
    -a ! -e "$src/fire 12.vxg"
check "rm nothing" status_is 1 "$tool" rm --yes "$src/fire ####.vxg"

finish
