# shellcheck shell=bash
# What the scripts share. Each sources it at the top of the repository.

# Ctrl-C ends a script once the command it waits for has ended, whatever that one made of it.
trap 'exit 130' INT

# What root makes in somebody else's repository is handed to them, or they could not go on by themselves.
hand_back() {
    if ((EUID == 0)) && [[ -d build ]]; then
        chown -R --reference=. build || true
    fi
}
trap hand_back EXIT

say() { echo "${0##*/}: $*"; }
fail() {
    say "$*" >&2
    exit 1
}

# Files of the project that exist, whether added yet or not. Root may ask too, whoever owns them.
sources() {
    local file
    git -c safe.directory="$PWD" ls-files --cached --others --exclude-standard "$@" | sort -u |
        while read -r file; do
            [[ ! -f $file ]] || echo "$file"
        done
}

# phase TITLE LOG PATTERN COMMAND [ARG...]: runs a command with its output in the log, and shows that
# it moves: what the pattern's first group matched last, and the seconds so far. Shows the log when the
# command fails, without the lines of the pattern, which tell what went well.
phase() {
    local title=$1 log=$2 pattern=$3 start=$SECONDS
    shift 3
    say "$title (details in $log)"
    "$@" 2>&1 </dev/null | watch_phase && return
    grep -vE "$pattern" "$log" >&2 || true
    fail "$title failed after $((SECONDS - start)) s: $*"
}

# On a terminal one line that changes and goes in the end, elsewhere a line every 20 seconds.
watch_phase() {
    local line at='' next=$((SECONDS + 20))
    # The command ends this one too: by the end of its output, not by Ctrl-C.
    trap '' INT
    while true; do
        if IFS= read -r -t 1 line; then
            printf '%s\n' "$line"
            [[ ! $line =~ $pattern ]] || at="${BASH_REMATCH[1]}, "
        elif (($? > 128)); then
            printf '%s' "$line"
        else
            break
        fi >>"$log"
        if [[ -t 1 ]]; then
            printf '\r\033[K%.79s' "${0##*/}: $title: $at$((SECONDS - start)) s"
        elif ((SECONDS >= next)); then
            next=$((SECONDS + 20))
            say "$title: $at$((SECONDS - start)) s"
        fi
    done
    [[ ! -t 1 ]] || printf '\r\033[K'
}
