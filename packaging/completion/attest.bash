# Completion of attestctl, attest-provision, attest-trace, attest-cache and attestation_agent in bash: what can follow is
# what the program's --help says, so that there is no second list of it.

# The first words of a help's rows that name a command: two spaces, the command, perhaps its argument, its text.
_attest_commands() {
    sed -nE 's/^  ([a-z][a-z-]*)( [A-Z]+)?  +.*/\1/p' <<<"$1"
}

# What a help's row says stands behind an option: FILE, DIR, ...; nothing where nothing does.
_attest_value() {
    sed -nE "s/^  $2 ([A-Z][A-Z:,.]*).*/\1/p" <<<"$1"
}

_attest() {
    local program=$1 current=$2 previous=$3 help commands words="" word command=""
    COMPREPLY=()
    help=$("$program" --help 2>/dev/null) || return
    commands=$(_attest_commands "$help")
    for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do
        if [[ $word != -* && $'\n'$commands$'\n' == *$'\n'$word$'\n'* ]]; then
            command=$word
            # attestctl alone has options of its commands; the help of another is its whole help.
            [[ ${program##*/} != attestctl ]] || help=$("$program" "$command" --help 2>/dev/null)
            break
        fi
    done
    [[ $previous != --* ]] || words=$(_attest_value "$help" "$previous")
    case $words in
    FILE) mapfile -t COMPREPLY < <(compgen -f -- "$current") && return ;;
    DIR) mapfile -t COMPREPLY < <(compgen -d -- "$current") && return ;;
    "") ;;
    *) return ;;
    esac
    if [[ $current == -* ]]; then
        words=$(grep -oE -- '(^|[^-a-z])--[a-z][a-z-]*' <<<"$help" | grep -oE -- '--.*' | sort -u)
    elif [[ -z $command ]]; then
        words=$commands
    elif [[ ${program##*/} == attest-trace && $command == o[nf]* ]]; then
        words=$("$program" flags 2>/dev/null | awk 'NR > 1 { print $1 }')
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$current")
}

complete -F _attest attestctl attest-provision attest-trace attest-cache attestation_agent
