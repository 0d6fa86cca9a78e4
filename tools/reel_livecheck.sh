#!/bin/sh
# Plays the show live in a virtual X server with a window manager, takes screenshots at chosen
# show times and puts each beside the headless capture of the same time, for a person to
# compare: OUTDIR/live_T.png, OUTDIR/capture_T.png and OUTDIR/pair_T.png (live left, capture
# right) for every time T in seconds.
#
# The live times are wall-clock times counted from the moment the program printed its first
# line, so a screenshot comes a little later in the show than asked (start-up, and the time
# import takes); choose times inside scenes, not on their changes. The screen is 640 x 480, so
# the window shows the composition at its own size.
set -eu

usage() {
    echo "usage: tools/reel_livecheck.sh [--build DIR] OUTDIR SECONDS..."
    echo "Runs DIR/reel (default: build) in the current folder under xvfb-run with openbox, takes"
    echo "screenshots at the given show times with ImageMagick's import, captures the same times"
    echo "with DIR/reel_capture and writes them side by side into OUTDIR."
}

build=build
while [ $# -gt 0 ]; do
    case "$1" in
    -h | --help) usage; exit 0 ;;
    --build) [ $# -ge 2 ] || { usage >&2; exit 2; }; build=$2; shift 2 ;;
    --) shift; break ;;
    -*) echo "reel_livecheck: unknown argument \"$1\"" >&2; usage >&2; exit 2 ;;
    *) break ;;
    esac
done
[ $# -ge 2 ] || { usage >&2; exit 2; }
out=$1
shift
for t in "$@"; do
    case "$t" in
    '' | *[!0-9.]* | *.*.*) echo "reel_livecheck: \"$t\" is not a time in seconds" >&2; usage >&2; exit 2 ;;
    esac
done
for program in xvfb-run openbox import convert; do
    command -v "$program" >/dev/null 2>&1 || {
        echo "reel_livecheck: $program is not installed (on Debian: xvfb, openbox, imagemagick)" >&2
        exit 1
    }
done
for program in "$build/reel" "$build/reel_capture"; do
    [ -x "$program" ] || { echo "reel_livecheck: $program: not built" >&2; exit 1; }
done
mkdir -p "$out"
out=$(cd "$out" && pwd)
build=$(cd "$build" && pwd)

# ---- live: one X session, the times in order ----
times=$(printf '%s\n' "$@" | sort -n -u | tr '\n' ' ')
SDL_AUDIODRIVER=${SDL_AUDIODRIVER:-dummy} xvfb-run -a -s "-screen 0 640x480x24" sh -c '
    out=$1; program=$2; shift 2
    openbox >/dev/null 2>&1 &
    wm=$!
    sleep 1
    log="$out/live.log"
    stdbuf -oL "$program" >"$log" 2>&1 &
    reel=$!
    while [ ! -s "$log" ] && kill -0 "$reel" 2>/dev/null; do sleep 0.01; done
    start=$(date +%s.%N)
    for t in "$@"; do
        wait_s=$(awk -v s="$start" -v t="$t" -v now="$(date +%s.%N)" "BEGIN { printf \"%.3f\", s + t - now }")
        case "$wait_s" in -*) ;; *) sleep "$wait_s" ;; esac
        import -window root "$out/live_$t.png"
    done
    kill "$reel" 2>/dev/null || true
    wait "$reel" 2>/dev/null || true
    kill "$wm" 2>/dev/null || true
' livecheck "$out" "$build/reel" $times

# ---- the capture of the same times, and the pairs ----
frame_of() { awk -v t="$1" 'BEGIN { printf "%d", t * 60 + 0.5 }'; }
frames=""
last=0
for t in $times; do
    last=$(frame_of "$t")
    frames="$frames --png-at $last"
done
# shellcheck disable=SC2086
"$build/reel_capture" --frames $((last + 1)) $frames --out "$out/capture_frames" >"$out/capture.log"
for t in $times; do
    f=$(printf '%06d' "$(frame_of "$t")")
    mv "$out/capture_frames/frame_$f.png" "$out/capture_$t.png"
    convert "$out/live_$t.png" "$out/capture_$t.png" -background black +append "$out/pair_$t.png"
    echo "$out/pair_$t.png"
done
rmdir "$out/capture_frames" 2>/dev/null || true
