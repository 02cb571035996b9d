# Sourced by the demonstration's scripts: runs one command so that Ctrl-C, or a signal to the script alone, ends it in
# good order. The script says `trap pass_on INT TERM HUP` first. After `supervise COMMAND ...` the variable
# `interrupted` is not empty if somebody wanted it to end.
#
# The command runs in the background and in a process group of its own, because of what bash does otherwise: it forgets
# a Ctrl-C that comes while a command in the foreground runs and ends as if nothing had happened.

interrupted=${interrupted:-}
supervised=
grace_s=${grace_s:-20} # for an orderly end; then the command is killed, and all that it made goes with its namespaces

pass_on() {
  interrupted=1
}

# Returns the command's exit status.
supervise() {
  local status=0 deadline number
  [ -z "$interrupted" ] || return 130
  set -m
  "$@" </dev/null &
  supervised=$!
  set +m
  # A wait ends early when a signal comes. The first one is for a command that has ended already.
  while [ -z "$interrupted" ]; do
    status=0
    wait "$supervised" || status=$?
    kill -0 "$supervised" 2>/dev/null || break
  done
  if [ -n "$interrupted" ]; then
    deadline=$((SECONDS + grace_s))
    # More than once: a process that is about to set its trap, or to take over from its parent, would miss it.
    while kill -0 "$supervised" 2>/dev/null; do
      number=TERM
      [ "$SECONDS" -lt "$deadline" ] || number=KILL
      kill "-$number" -- "-$supervised" 2>/dev/null || true
      (trap '' TERM && exec sleep 0.1) || true # the script above may signal this one's whole group
    done
    status=0
    wait "$supervised" 2>/dev/null || status=$?
  fi
  supervised=
  return "$status"
}
