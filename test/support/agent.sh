# shellcheck shell=bash disable=SC2034
# What the scripts share that try a whole agent in a sandbox of their own: the program, installed with
# its modules in /usr/local/watchpost, policies, and the syslog daemons of the host.

program=$1
bin=$(dirname "$program")
home=/usr/local/watchpost
failed=0
fail() {
    echo "${0##*/}: $*" >&2
    failed=1
}
# Waits until the command succeeds, for far longer than it takes on a loaded machine.
eventually() {
    local deadline=$((SECONDS + 60))
    until "$@"; do
        ((SECONDS < deadline)) || {
            fail "waited in vain: $*"
            return 0
        }
        sleep 0.05
    done
}

mkdir -p $home/{module,policy,conf,log}
cp "$bin"/../module/*.so $home/module

# Puts a policy file in place the way writers should.
policy() { # NAME CONTENT [MORE]
    printf '{"module_name":"rsyslog_module","feature_name":"rsyslog_feature",%s"content":{%s}}' \
        "${3-}" "$2" >"$home/policy/$1.new"
    mv "$home/policy/$1.new" "$home/policy/$1"
}
start_agent() { # OPTION...
    "$program" "$@" >/run/agent.out 2>&1 &
    agent=$!
}
stop_agent() { # [SIGNAL]; the agent's exit status
    kill "-${1-TERM}" "$agent"
    wait "$agent"
}
start_daemon() { # rsyslogd|syslog-ng
    local pid_file=/run/$1.pid
    local command=("$1")
    [[ $1 == rsyslogd ]] || command+=("--pidfile=$pid_file")
    "${command[@]}" >/run/daemon.out 2>&1 || fail "$1 does not start: $(cat /run/daemon.out)"
    eventually test -s "$pid_file"
}
