#!/bin/sh
# Drives connector-shell in a terminal: tmux runs it in a detached pane, the test types keys and
# reads the screen back with capture-pane. Covers the prompt, line editing (backspace, moving to
# the start of the line), Tab completion, history kept in a bounded file under $HOME, Ctrl-C
# abandoning a line, an error, and leaving with Ctrl-D.
# Usage: terminal-test.sh SHELL
set -u
shell=$1
work=$(cd "$(mktemp -d)" && pwd -P)
socket="connector-shell-test-$$"
: "${TERM:=xterm}"
export TERM

tm() { tmux -L "$socket" -f /dev/null "$@"; }
cleanup() {
  tm kill-server 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT

screen() { tm capture-pane -p -t shell -S -200; }

# Waits until the screen holds at least COUNT lines matching the fixed text (COUNT defaults to
# 1; with -x the whole line must match). The generous limit only bounds a hung shell: a
# passing run returns as soon as the text is there.
expect() {
  whole=""
  if [ "$1" = -x ]; then
    whole=-x
    shift
  fi
  text=$1 count=${2:-1} tries=0
  while [ "$(screen | grep -cF $whole -- "$text")" -lt "$count" ]; do
    tries=$((tries + 1))
    if [ "$tries" -gt 600 ]; then
      echo "FAILED: the screen never showed ${count} line(s) with: $text"
      echo "---- screen ----"
      screen
      exit 1
    fi
    sleep 0.05
  done
}

type_line() { tm send-keys -t shell -l "$1"; }

# A history from earlier sessions, longer than the shell keeps.
history="$work/.connector_shell_history"
seq 1 1500 | sed 's/^/# earlier /' >"$history"

# The pane stays after the shell ends, showing its exit status.
tm new-session -d -s shell -x 132 -y 60 -c "$work" \
  "HOME='$work' '$shell' --log-dir '$work'; echo connector-shell exited with \$?" || exit 1
tm set-option -t shell remain-on-exit on >/dev/null
expect "connector>"

# The up arrow brings back the last line of the history file; Ctrl-C abandons it, and the shell
# goes on with an empty line (Tab completes a configuration key on it).
tm send-keys -t shell Up
expect 'connector> # earlier 1500'
tm send-keys -t shell C-c
expect 'connector> # earlier 1500^C'  # the signal is handled before anything more is typed
type_line 'config get svc.pre'
tm send-keys -t shell Tab Enter
expect 'svc.prefix = "" (string, label "default")'

# A request through the logging provider; Tab completes the message type.
type_line 'send echo gree'
tm send-keys -t shell Tab
type_line '"hi there"'
tm send-keys -t shell Enter
expect ': Request (0): demo::Greeting'
expect 'answer: demo::Greeting "hi there"'

# Line editing: two characters too many, removed with backspace.
type_line 'config get svc.enabledXY'
tm send-keys -t shell BSpace BSpace Enter
expect 'svc.enabled = true (bool, label "default")'

# Moving to the start of the line to complete a command typed from its end.
type_line 'listServiceProviders'
tm send-keys -t shell C-a
type_line 'connector.'
tm send-keys -t shell Enter
expect -x 'svc'

# Tab completes a command name; the up arrow brings it back from the history.
type_line 'connector.log.getSpec'
tm send-keys -t shell Tab Enter
expect -x 'info'
tm send-keys -t shell Up Enter
expect -x 'info' 2

# An error is printed and the shell goes on.
type_line 'bogus'
tm send-keys -t shell Enter
expect 'error: unknown command "bogus"; "help" lists the commands'
type_line 'send echo ping'
tm send-keys -t shell Enter
expect 'answer: demo::Ping'

# Ctrl-D on an empty line leaves; the history file keeps the newest lines, this session's last.
tm send-keys -t shell C-d
expect -x 'connector-shell exited with 0'
if [ "$(wc -l <"$history")" -ne 1000 ] || [ "$(tail -n 1 "$history")" != 'send echo ping' ]; then
  echo "FAILED: $history should hold 1000 lines ending with this session's last one; it holds:"
  tail -n 3 "$history"
  exit 1
fi
echo "the shell answered every keystroke as expected"
