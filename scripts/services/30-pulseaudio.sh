# A PulseAudio daemon with a null sink (what is played can be recorded from nullsink.monitor) and a
# remapped source over that monitor, since Qt hides *.monitor sources. It lives in the private
# XDG_RUNTIME_DIR, so the developer's own sound server is never touched. Qt never reconnects to a
# server that appears later: start this before any test process.
start_pulseaudio() {
  command -v pulseaudio >/dev/null 2>&1 || return 1
  pulseaudio --daemonize=yes --exit-idle-time=-1 -n --use-pid-file=yes \
    --load="module-native-protocol-unix auth-anonymous=1" \
    --load="module-null-sink sink_name=nullsink rate=48000" \
    --load="module-remap-source source_name=nullmic master=nullsink.monitor" || return 1
  local ready=0
  for _ in $(seq 50); do
    if pactl info >/dev/null 2>&1; then
      ready=1
      break
    fi
    sleep 0.1
  done
  [ "$ready" = 1 ] || return 1
  pactl set-default-sink nullsink && pactl set-default-source nullmic
}

stop_pulseaudio() {
  kelo_kill_pidfile "$XDG_RUNTIME_DIR/pulse/pid"
}
