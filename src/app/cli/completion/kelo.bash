# bash completion for kelo. The candidates come from `kelo __complete`, which knows every command,
# option and value list (voice engines, gallery ids, the stored MCP server names) from the program
# itself and never prints a secret.
_kelo()
{
    local cur=${COMP_WORDS[COMP_CWORD]}
    local IFS=$'\n'
    local candidates word
    candidates=$("${COMP_WORDS[0]}" __complete "${COMP_WORDS[@]:1:COMP_CWORD}" 2>/dev/null) || return 0
    COMPREPLY=()
    for word in $candidates; do
        if [[ $word == @file ]]; then
            compopt -o filenames 2>/dev/null
            COMPREPLY+=($(compgen -f -- "$cur"))
        else
            # Values with spaces ("Google Cloud TTS") stay one word on the command line.
            COMPREPLY+=("$(printf '%q' "$word")")
        fi
    done
}
complete -F _kelo kelo
