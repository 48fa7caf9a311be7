#!/usr/bin/env bash
# The manual pages and the bash completion, as a user meets them, against the built programs.
# Usage: shell_integration_test.sh BIN_DIR MAN_DIR COMPLETION_SCRIPT
set -euo pipefail
bin=$1 man_dir=$2 completion=$3
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
export PATH=$bin:$PATH XDG_CONFIG_HOME=$work/config XDG_DATA_HOME=$work/data XDG_CACHE_HOME=$work/cache
export KELO_SECRET_STORE=file
fail() { echo "FAIL: $*" >&2; exit 1; }

# Every line of every help text is in the rendered manual page, word for word (the first line,
# "Kelo — what it is.", is the page's NAME line).
squeeze() { tr -s ' ' | sed 's/^ //; s/ $//; s/^Kelo — \(.*\)\.$/\1/'; }
check_page() {
  local page=$1; shift
  MANWIDTH=200 man -l "$page" 2>/dev/null | squeeze >"$work/page.txt"
  while IFS= read -r line; do
    [ -z "$line" ] || grep -qF -- "$line" "$work/page.txt" || fail "$(basename "$page"): missing \"$line\""
  done < <("$@" | squeeze)
}
check_page "$man_dir/kelo.1.gz" kelo --help
for command in $(kelo __complete ""); do
  [[ $command == --* ]] || check_page "$man_dir/kelo.1.gz" kelo "$command" --help
done
check_page "$man_dir/kelo-companion.1.gz" kelo-companion --help

# _kelo as bash calls it on Tab: COMP_WORDS and COMP_CWORD in, COMPREPLY out.
complete_line() {
  bash -c 'source "$1"; shift; COMP_WORDS=("$@"); COMP_CWORD=$(($# - 1)); _kelo; printf "%s\n" "${COMPREPLY[@]}"' \
    _ "$completion" "$@"
}
[ "$(complete_line kelo mcp con)" = connect ] || fail "kelo mcp con → $(complete_line kelo mcp con)"
[ "$(complete_line kelo say --engine "" | tr '\n' ' ')" = "local google azure elevenlabs " ] \
  || fail "the engines after --engine"
[ "$(complete_line kelo config set voiceEngine Goo)" = 'Google\ Cloud\ TTS' ] || fail "a value with spaces"
kelo mcp add "Notițe mele" http://127.0.0.1:9/mcp --token secret-de-test >/dev/null
[ "$(complete_line kelo mcp disable "")" = 'Notițe\ mele' ] || fail "the stored server names"
! complete_line kelo mcp disable "" | grep secret-de-test >/dev/null || fail "a token in the completion"
complete_line kelo mcp connect "" | grep -x github >/dev/null || fail "the gallery ids"
touch "$work/voce.wav"
[ "$(complete_line kelo listen --file "$work/vo")" = "$work/voce.wav" ] || fail "file names after --file"
echo "manual pages and completion agree with the programs"
