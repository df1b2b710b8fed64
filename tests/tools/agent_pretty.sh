#!/bin/sh
# kelo-agent --pretty with the demo service: messages are printed indented,
# and expect still matches their one-line form.
#   agent_pretty.sh KELO_AGENT DEMO_SERVICE WORK_DIR
# Run inside kelo-run: it uses the agent's port 54320 and the device record.
set -u
work=$3/agent-pretty
rm -rf "$work" && mkdir -p "$work" || exit 1
cat >"$work/session" <<'END'
timeout 5000
expect "key":"demo.echo"
call demo.echo {"x":[1,2]}
expect "result":{"x":[1,2]}
quit
END
"$1" --pretty --script "$work/session" >"$work/agent.out" 2>&1 &
agent=$!
sleep 0.3
KELO_LOG_FILE=/dev/null "$2" --name pretty --interval 3600 &
service=$!
wait "$agent"
rc=$?
kill "$service" 2>/dev/null
wait "$service" 2>/dev/null
cat "$work/agent.out"
[ "$rc" = 0 ] || { echo "FAIL: agent exit status $rc"; exit 1; }
grep -q '^  "result": {$' "$work/agent.out" || { echo "FAIL: the reply is not indented"; exit 1; }
