#!/bin/sh
# The agent simulator at a terminal (a pty made by script(1)): a line typed,
# then the up arrow and Enter repeat it from the history, which is also saved
# in $HOME/.kelo-agent_history.   agent_terminal.sh KELO_AGENT WORK_DIR
set -u
agent=$1
home=$2/agent-terminal-home
rm -rf "$home" && mkdir -p "$home" || exit 1
out=$(printf 'say from history\n\033[A\nquit\n' | HOME=$home script -qec "$agent --port 0" /dev/null)
echo "$out"
[ "$(printf '%s\n' "$out" | grep -c -- '-- from history')" = 2 ] || { echo "FAIL: the line was not repeated"; exit 1; }
grep -q 'say.040from.040history' "$home/.kelo-agent_history" || { echo "FAIL: no history file"; exit 1; }
