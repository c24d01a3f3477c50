#!/usr/bin/env bash
# Runs the real dubmatch binary on a private X display (Xvfb) with a window
# manager (openbox) and drives it with xdotool as a user would: open a
# generated movie, play, stop, make two sync points, type exact values into
# the sync point table, Save As through the real file dialog, Export to
# MPEG-4 (once cancelled on the progress sheet, once to the end), edit the
# table, Quit and answer the save question. Then checks that the process
# exited with status 0, that the saved movie measures in sync and that the
# export plays; last, a movie with two sound tracks syncs the second once
# it is chosen in Sync > Sound Track to Sync. A screenshot of every step goes to OUTDIR.
#
# Usage: real_display_test.sh DUBMATCH DUBMATCH_CLI OUTDIR
# Exits 77 (skipped) when Xvfb, openbox, xdotool, import or FFmpeg's tools are missing.
set -uo pipefail

app=$1
cli=$2
out=$3
for tool in Xvfb openbox xdotool import ffprobe ffmpeg; do
  if ! command -v "$tool" >/dev/null; then
    echo "SKIP: $tool is not installed"
    exit 77
  fi
done

rm -rf "$out"
mkdir -p "$out"
work=$(mktemp -d)
export HOME=$work/home XDG_CONFIG_HOME=$work/home/.config XDG_RUNTIME_DIR=$work/runtime
mkdir -p "$XDG_CONFIG_HOME/Dubmatch" "$XDG_RUNTIME_DIR"
chmod 700 "$XDG_RUNTIME_DIR"
# The start-up update question is answered in advance: no network here.
printf '[General]\nPXUpdateCheckerCheckAtStartup=false\n' >"$XDG_CONFIG_HOME/Dubmatch/Dubmatch.ini"
unset QT_QPA_PLATFORM
export SDL_AUDIODRIVER=dummy

pids=()
cleanup() {
  for p in "${pids[@]}"; do kill "$p" 2>/dev/null; done
  wait 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

started=$(date +%s.%N)
step=0
log() { printf '[%6.2fs] %s\n' "$(echo "$(date +%s.%N) - $started" | bc)" "$*"; }
fail() {
  log "FAIL: $*"
  shot "failure"
  [[ -f $work/app.log ]] && { echo "--- application output"; cat "$work/app.log"; }
  exit 1
}
shot() {
  step=$((step + 1))
  import -display "$DISPLAY" -window root "$(printf '%s/%02d-%s.png' "$out" "$step" "$1")" 2>/dev/null
}

# A free display number.
for n in $(seq 90 140); do
  [[ -e /tmp/.X11-unix/X$n || -e /tmp/.X$n-lock ]] || { display=:$n; break; }
done
Xvfb "$display" -screen 0 1280x800x24 -nolisten tcp >"$work/xvfb.log" 2>&1 &
pids+=($!)
export DISPLAY=$display
for _ in $(seq 1 100); do xdotool getmouselocation >/dev/null 2>&1 && break; sleep 0.05; done
xdotool getmouselocation >/dev/null 2>&1 || fail "Xvfb did not start"
openbox >"$work/openbox.log" 2>&1 &
pids+=($!)
sleep 0.5

# Waits (polling) until COMMAND succeeds; fails after SECONDS.
wait_for() {
  local seconds=$1 what=$2
  shift 2
  local end=$(($(date +%s) + seconds))
  until "$@"; do
    (($(date +%s) < end)) || fail "timed out waiting for $what"
    sleep 0.05
  done
}
window_named() { xdotool search --onlyvisible --name "$1" 2>/dev/null | head -n 1; }
has_window() { [[ -n $(window_named "$1") ]]; }
no_window() { [[ -z $(window_named "$1") ]]; }
activate() {
  local id
  id=$(window_named "$1")
  [[ -n $id ]] || fail "no window named $1"
  xdotool windowactivate --sync "$id" >/dev/null 2>&1 || xdotool windowfocus --sync "$id"
  sleep 0.2
}
key() { xdotool key --delay 60 "$@"; sleep 0.15; }
typed() { xdotool type --delay 30 -- "$1"; }

# The movie: 40 s, its sound late and drifting; the points file holds the
# exact sync points of its flashes.
movie=$work/movie.mov
"$cli" demo "$movie" --seconds 40 --size 320x240 --points-file "$work/points.txt" >/dev/null || fail "demo movie"
read -r pm1 pa1 < <(grep -v '^#' "$work/points.txt" | head -n 1 | tr -d '=')
read -r pm2 pa2 < <(grep -v '^#' "$work/points.txt" | tail -n 1 | tr -d '=')
# The two points made below lie at 4 s and 38 s; their offsets (movie time
# minus unedited sound time, in ms) on the demo's line.
m1=4
m2=38
offset_at() { echo "a = $pa1 + ($1 - $pm1) * ($pa2 - $pa1) / ($pm2 - $pm1); ($1 - a) * 1000" | bc -l | xargs printf '%.4f'; }
o1=$(offset_at $m1)
o2=$(offset_at $m2)
log "points: $m1 s at $o1 ms, $m2 s at $o2 ms"

"$app" "$movie" >"$work/app.log" 2>&1 &
apppid=$!
pids+=($apppid)
wait_for 30 "the movie window" has_window '^movie\.mov\*?$'
wait_for 10 "the sync point window" has_window '^movie\.mov Sync Points$'
sleep 0.5
shot "opened"
log "opened"

activate '^movie\.mov\*?$'
key space
sleep 2.5
shot "playing"
key space
log "played and stopped"
shot "stopped"

# First point: back to the start, six seconds on (Shift+Right is one
# second), Return loops 2..6 s, the arrows nudge, Return accepts.
key Home
for _ in 1 2 3 4 5 6; do key shift+Right; done
shot "at-six-seconds"
key Return
sleep 0.5
shot "point-in-progress"
key Right Right Right
shot "nudged"
key Return
log "first point accepted"
shot "first-point"

# Second point at the end of the movie: the loop 36..40 s.
key End
key Return
sleep 0.4
key Return
log "second point accepted"
shot "second-point"

# The table: the exact offsets of both points.
edit_cell() { # keys to reach the cell, then the text
  key F2
  xdotool key ctrl+a
  typed "$1"
  key Return
}
activate '^movie\.mov Sync Points$'
key ctrl+Home Right
edit_cell "$o1"
key Down
edit_cell "$o2"
shot "table-edited"
log "table edited"

# Save As through the real dialog: the proposal is movie-synced.mov.
activate '^movie\.mov\*?$'
key ctrl+shift+s
wait_for 10 "the Save As dialog" has_window '^Save As$'
sleep 0.4
shot "save-as-dialog"
key Return
synced=$work/movie-synced.mov
wait_for 60 "the saved movie" has_window '^movie-synced\.mov\*?$'
wait_for 30 "the save to end" no_window '^Writing$'
[[ -s $synced ]] || fail "Save As wrote nothing"
shot "saved-as"
log "saved as $(basename "$synced")"

# Export to MPEG-4 through the real dialog; Cancel on the progress sheet.
export_dialog() {
  activate '^movie-synced\.mov\*?$'
  key ctrl+e
  wait_for 10 "the Export dialog" has_window '^Export$'
  sleep 1 # the panel lists its folder first
  key alt+f
  xdotool type M
  sleep 0.2
  shot "export-dialog"
}
export_dialog
key Return
wait_for 20 "the progress sheet" has_window '^Exporting$'
shot "exporting"
activate '^Exporting$'
key Escape
shot "stopping"
# The sheet stays until the export has stopped; then the window takes commands.
wait_for 20 "the progress sheet to close" no_window '^Exporting$'
log "export cancelled"
sleep 0.3
shot "export-cancelled"
exported=$work/movie-synced.mp4
[[ -e $exported ]] && fail "a cancelled export left $exported"
left=$(ls -A "$work" | grep -vxE 'movie.mov|movie-synced.mov|points.txt|app.log|xvfb.log|openbox.log|home|runtime')
[[ -z $left ]] || fail "a cancelled export left: $left"

export_dialog
key Return
wait_for 60 "the export" test -s "$exported"
wait_for 60 "the export to end" no_window '^Exporting$'
shot "exported"
log "exported"
# The movie still plays its loop (it runs to the movie's end): the picture
# moves from one moment to the next and is not the loop's first frame held.
picture() { import -display "$DISPLAY" -window "$(window_named '^movie-synced\.mov\*?$')" -crop 320x230+0+25 +repage "$1" 2>/dev/null; }
moved=0
for _ in 1 2 3; do
  picture "$work/a.png"
  sleep 0.5
  picture "$work/b.png"
  diff=$(compare -metric AE "$work/a.png" "$work/b.png" null: 2>&1 | cut -d' ' -f1)
  [[ $diff =~ ^[0-9]+$ ]] && ((diff > 100)) && { moved=1; break; }
done
rm -f "$work/a.png" "$work/b.png"
((moved)) || fail "the picture does not move while the loop plays"

# An edit in the table marks the movie edited; Quit asks; Save answers.
activate '^movie-synced\.mov Sync Points$'
key ctrl+Home Right
edit_cell "$o1"
shot "edited-again"
before=$(stat -c %i "$synced")
activate '^movie-synced\.mov\*?$'
key ctrl+q
wait_for 10 "the save question" has_window '^Dubmatch$'
sleep 0.6
shot "save-question"
key Return
# The save ends when the new file is renamed over the old one; from then
# the process must end by itself within two seconds, with status 0.
saved_inode() { [[ $(stat -c %i "$synced" 2>/dev/null) != "$before" ]]; }
wait_for 60 "the save in place" saved_inode
saved_at=$(date +%s.%N)
end=$(($(date +%s) + 30))
while kill -0 "$apppid" 2>/dev/null; do
  (($(date +%s) < end)) || fail "the application did not exit after Quit"
  sleep 0.02
done
wait "$apppid"
status=$?
exit_seconds=$(echo "$(date +%s.%N) - $saved_at" | bc)
log "exited with status $status, $(printf '%.2f' "$exit_seconds") s after the save"
((status == 0)) || fail "exit status $status"
awk -v s="$exit_seconds" 'BEGIN { exit !(s <= 2.0) }' || fail "the application took $exit_seconds s to exit"
after=$(stat -c %i "$synced")
[[ $before != "$after" ]] || fail "Save in the quit question did not write the movie"
grep -E "QObject|closeEditor|Segmentation|terminate called" "$work/app.log" && fail "warnings in the application output"

# The saved movie measures in sync; the export plays.
"$cli" measure "$synced" >"$work/measure.txt" || fail "measure"
cat "$work/measure.txt" | tail -n 3
worst=$(awk '/^worst:/ {print $2}' "$work/measure.txt")
awk -v w="$worst" 'BEGIN { exit !(w <= 0.05) }' || fail "the saved movie is $worst ms out of sync"
streams=$(ffprobe -v error -show_entries stream=codec_type -of csv=p=0 "$exported" | sort | tr '\n' ' ')
[[ $streams == *audio*video* ]] || fail "the export has streams: $streams"
ffmpeg -v error -i "$exported" -f null - || fail "the export does not decode"

# A movie with a dub: it opens on the first sound track; Sync > Sound Track
# to Sync, driven from the keyboard, moves the sync to the second, and the
# sync point window's title names it.
dubbed=$work/dubbed.mkv
ffmpeg -v error -i "$movie" -i "$movie" -map 0:v -map 0:a -map 1:a -c copy \
  -metadata:s:a:0 language=eng -metadata:s:a:0 title=English -metadata:s:a:1 language=ger -metadata:s:a:1 title=German \
  -disposition:a:0 default -disposition:a:1 default "$dubbed" || fail "the dubbed movie"
"$app" "$dubbed" >"$work/app.log" 2>&1 &
apppid=$!
pids+=($apppid)
wait_for 30 "the dubbed movie's windows" has_window '^dubbed\.mkv Sync Points .* Track 2 "English"$'
activate '^dubbed\.mkv\*?$'
key alt+s
key t
sleep 0.4
shot "sound-track-menu"
key Down Return
wait_for 20 "the dub chosen" has_window '^dubbed\.mkv Sync Points .* Track 3 "German"$'
shot "dub-chosen"
log "the dub chosen from the Sound Track to Sync menu"
# Sync > Suggest Points from a Sound Track > the English track: the dub is a
# copy here, so the candidates come without an alert of differing stretches.
activate '^dubbed\.mkv\*?$'
key alt+s
key f
sleep 0.4
shot "reference-menu"
key Return
sleep 6
shot "reference-suggested"
has_window '^Dubmatch$' && fail "an alert after suggesting points from the English track"
log "points suggested from the English track"
activate '^dubbed\.mkv\*?$'
key ctrl+q
wait_for 20 "the application to quit" bash -c "! kill -0 $apppid 2>/dev/null"
log "PASS: worst $worst ms, export streams: $streams"
