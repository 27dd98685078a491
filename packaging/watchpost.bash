# shellcheck shell=bash
# Completion of watchpost's command line in bash. Commands and options are those that the program
# itself tells with --help; files are left to bash.
_watchpost() {
    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD - 1]} command="" help words=""
    COMPREPLY=()
    if ((COMP_CWORD > 1)) && [[ ${COMP_WORDS[1]} != -* ]]; then
        command=${COMP_WORDS[1]}
    fi
    help=$("${COMP_WORDS[0]}" ${command:+"$command"} --help 2>/dev/null) || return 0
    if [[ $word == -* ]]; then
        words=$(sed -n 's/^\(--[a-z-]*=\{0,1\}\).*/\1/p' <<<"$help")
    elif [[ $word == = || $before == = ]]; then
        return 0
    else
        if ((COMP_CWORD == 1)) || [[ $before == "$command" ]]; then
            words=$(sed -n '/^Commands/,$s/^  \([a-z]*\) .*/\1/p' <<<"$help")
        fi
        if [[ -z $words && ${help%%$'\n'*} == *FILE* ]]; then
            return 0
        fi
    fi
    mapfile -t COMPREPLY < <(compgen -W "$words" -- "$word")
    if ((${#COMPREPLY[@]} == 0)); then
        compopt +o default
    elif [[ ${COMPREPLY[0]} == *= ]]; then
        compopt -o nospace
    fi
}
complete -o default -F _watchpost watchpost
