# shellcheck shell=bash
# Sourced by the test scripts. wait_until_listening LOG PID: waits up to 10 s until the
# reference server writing LOG says it is listening; fails sooner when its process PID ends.
wait_until_listening() {
  local log=$1 pid=$2
  for _ in $(seq 1 100); do
    grep -q '^listening on ' "$log" && return 0
    kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.1
  done
  return 1
}
