#!/usr/bin/env bash
# expect.sh STATUS REGEX COMMAND...: runs COMMAND, passes when it exits with
# STATUS and its output (stdout and stderr) matches the extended REGEX.
status="$1" regex="$2"
shift 2
out="$("$@" 2>&1)"
rc=$?
if [ "$rc" != "$status" ] || ! grep -Eq -- "$regex" <<<"$out"; then
  printf '%s\n--- exit %s, expected %s; expected output matching: %s\n' "$out" "$rc" "$status" "$regex"
  exit 1
fi
