#!/bin/sh
# Shell stand-in for tests: called as `record_shell.sh -c COMMAND`, it appends
# COMMAND as one line to "$NETMGR_SHELL_LOG" and runs nothing, so that tests
# see which device commands (init scripts, wpa_cli, iwpriv) the library ran.
if [ "$1" = "-c" ]; then
    shift
fi
if [ -n "$NETMGR_SHELL_LOG" ]; then
    printf '%s\n' "$1" >>"$NETMGR_SHELL_LOG"
fi
exit 0
