#!/usr/bin/env bash
# The editor in a real host: jalv.gtk3 embeds it on a private Xvfb display, with a private dummy
# JACK server, at GTK scale 1 and 2. A screenshot shows the panel (its size and a few pixels),
# and a drag on the depth knob with xdotool changes the plug-in's depth (the plug-in logs every
# value it takes, into jalv's log). Screenshots are kept in BUILD/test-screenshots/.
source "$(dirname "$0")/common.sh"
cd "$WORK"
source "$HERE/x11host.sh"

run_at_scale() {
    local scale=$1 client=sr-jalv-ui$1 width=$((1024 * $1)) height=$((400 * $1))
    mkfifo "commands$scale"
    exec 3<>"commands$scale"
    # -t: the plug-in's trace lines too (it logs each value it takes) in jalv's log.
    GDK_SCALE=$scale stdbuf -oL jalv.gtk3 -t -n "$client" "$URI" <&3 >"jalv$scale.out" \
        2>"jalv$scale.err" &
    local jalv=$!
    # The editor's window: the child of jalv's top-level that has the panel's size.
    find_editor "${width}x${height}" "$jalv"
    sleep 1 # the first idle calls draw it
    local x=$WX y=$WY
    import -window root -crop "${width}x${height}+$x+$y" "shot$scale.png"
    cp "shot$scale.png" "$SHOTS/jalv-ui-scale$scale.png"
    local size
    size=$(convert "shot$scale.png" -format '%wx%h' info:)
    [ "$size" = "${width}x${height}" ] || fail "the screenshot is $size, not ${width}x${height}"
    # The plate at its default contrast (grey 0.15), the lit strip of the selected MAIN button,
    # and the accent colour in the title's "CHORUS".
    local plate main
    plate=$(pixel "shot$scale.png" $((20 * scale)) $((200 * scale)))
    near "$plate" "38 38 38" 6 || fail "plate pixel is $plate at scale $scale"
    main=$(pixel "shot$scale.png" $((633 * scale)) $((337 * scale)))
    near "$main" "225 94 46" 30 || fail "MAIN button strip pixel is $main at scale $scale"

    # Drag the depth knob up by 40 panel units: +0.2 at any scale.
    local kx=$((x + 137 * scale)) ky=$((y + 222 * scale)) step
    xdotool mousemove "$kx" "$ky" sleep 0.2 mousedown 1 sleep 0.1
    for step in 10 20 30 40; do xdotool mousemove "$kx" $((ky - step * scale)) sleep 0.05; done
    xdotool sleep 0.1 mouseup 1
    kill -0 "$jalv" 2>/dev/null || fail "jalv.gtk3 died: $(cat "jalv$scale.err")"
    # The plug-in logs each value it takes: wait for the drag's to arrive.
    dragged() {
        cat "jalv$scale.out" "jalv$scale.err" |
            grep -o 'unit received parameter : address:7, value:[0-9.]*' | tail -n1 |
            awk -F'value:' '{ exit !($2 > 0.50 && $2 < 0.56) }'
    }
    eventually dragged || true # judged below, with the value found
    import -window root -crop "${width}x${height}+$x+$y" "drag$scale.png"
    cp "drag$scale.png" "$SHOTS/jalv-ui-scale$scale-after-drag.png"
    stop "$jalv" INT
    exec 3>&-
    [ "$STATUS" = 0 ] || fail "jalv.gtk3 exited with status $STATUS: $(cat "jalv$scale.err")"
    # The plug-in logs each value it takes: depth went from 0.33 to 0.53.
    local last
    last=$(cat "jalv$scale.out" "jalv$scale.err" |
        grep -o 'unit received parameter : address:7, value:[0-9.]*' | tail -n1 |
        sed 's/.*value://' || true)
    [ -n "$last" ] || fail "the plug-in's depth never changed at scale $scale"
    awk -v v="$last" 'BEGIN { exit !(v > 0.50 && v < 0.56) }' ||
        fail "depth is $last after the drag at scale $scale, not about 0.53"
    # The editor's log goes where the plug-in's goes: jalv's log, not standard output.
    grep -q 'editor received parameter : address:7' "jalv$scale.err" ||
        fail "the editor's log lines did not reach jalv's log at scale $scale"
    if grep -q 'editor received parameter' "jalv$scale.out"; then
        fail "the editor printed on jalv's standard output at scale $scale"
    fi
    if grep -Ei 'error|critical' "jalv$scale.err" "jalv$scale.out" | grep -v 'address:'; then
        fail "jalv.gtk3 or the editor reported errors at scale $scale"
    fi
    echo "scale $scale: ${width}x${height} editor, plate $plate, MAIN strip $main, depth 0.33 -> $last"
}

run_at_scale 1
run_at_scale 2
echo "ok: jalv.gtk3 shows the editor at GTK scale 1 and 2; screenshots in $SHOTS"
