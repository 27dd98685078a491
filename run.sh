#!/usr/bin/env bash
# The newcomer's command: installs what is missing, builds, and shows the system at work.
set -euo pipefail

usage() {
    cat <<'TEXT'
usage: ./run.sh [--daemon=rsyslog|syslog-ng]
           Installs what is missing to build, builds, and shows watchpost at work in a private copy
           of this machine, with the real rsyslogd (default) or syslog-ng. Nothing else on the
           machine is touched.
       ./run.sh --fleet
           The same with five hosts and a cluster of three servers.
       ./run.sh --host --policy FILE [-- WATCHPOST_OPTION...]
           Builds and runs the agent on this machine itself, in the foreground, as root, under the
           policy in FILE. What follows -- goes to watchpost as it is.
       ./run.sh --help
TEXT
}
misused() {
    echo "run.sh: $* (./run.sh --help tells more)" >&2
    exit 64
}

host=false
fleet=false
policy=
daemon=
while (($#)); do
    case $1 in
    --help)
        usage
        exit 0
        ;;
    --host) host=true ;;
    --fleet) fleet=true ;;
    --daemon=rsyslog | --daemon=syslog-ng) daemon=${1#*=} ;;
    --policy)
        (($# > 1)) || misused "--policy needs a file"
        policy=$2
        shift
        ;;
    --policy=*) policy=${1#*=} ;;
    --)
        shift
        break
        ;;
    *) misused "unknown option $1" ;;
    esac
    shift
done
if $host; then
    [[ -n $policy ]] || misused "--host needs --policy FILE"
    [[ -z $daemon ]] || misused "--host works with the daemon that runs, not with --daemon"
    [[ -f $policy && -r $policy ]] || misused "policy file $policy cannot be read"
    policy=$(realpath "$policy")
else
    [[ -z $policy ]] || misused "--policy goes with --host"
    (($# == 0)) || misused "options for watchpost go with --host"
fi
if $fleet && { $host || [[ -n $daemon ]]; }; then
    misused "--fleet goes alone"
fi
cd "$(dirname "${BASH_SOURCE[0]}")"
. script/common.sh

as_root=()
if $host && ((EUID != 0)); then
    command -v sudo >/dev/null || misused "--host needs root, and there is no sudo"
    as_root=(sudo)
fi

if ! $host; then
    test/sandbox --check
    script/bootstrap
    script/build release
    if $fleet; then
        exec test/sandbox demo/fleet
    fi
    exec test/sandbox demo/run "${daemon:-rsyslog}"
fi

script/bootstrap build
script/build release
home=/usr/local/watchpost
# The agent watches a directory; in one of its own, nothing but this policy reaches it.
# Root's, as are the modules: the agent obeys nobody else.
private=$("${as_root[@]}" mktemp -d)
trap '"${as_root[@]}" rm -rf "$private"; hand_back' EXIT
"${as_root[@]}" mkdir -m 755 "$private/policy" "$private/module"
"${as_root[@]}" cp "$policy" "$private/policy/policy.json"
"${as_root[@]}" cp build/release/module/*.so "$private/module/"
"${as_root[@]}" chmod -R go-w "$private"
cat <<TEXT

watchpost now runs on this machine, as root and in the foreground; Ctrl-C stops it.
  policy    a copy of $policy
  writes    $home/log, and what the policy asks for in the configuration of the syslog
            daemon, which it restarts
  remains   what it wrote: the daemon goes on forwarding after the stop. docs/operations.md tells
            how to end that.

TEXT
"${as_root[@]}" mkdir -p "$home/conf" "$home/log"
"${as_root[@]}" build/release/bin/watchpost --module-dir="$private/module" \
    --policy-dir="$private/policy" --log-dir="$home/log" "$@" &
agent=$!
# However this script is told to stop, it stops the agent in order and waits for it.
trap '"${as_root[@]}" kill -TERM "$agent"' INT TERM
status=0
wait "$agent" || status=$?
while kill -0 "$agent" 2>/dev/null; do
    status=0
    wait "$agent" || status=$?
done
echo "watchpost ended with status $status; its log is $home/log/watchpost.log"
exit "$status"
