#!/bin/sh
# Stand-in shell for the library's command runner: records each command line
# in $NETMGR_SHELL_LOG instead of running it.
[ "$1" = "-c" ] && shift
printf '%s\n' "$*" >>"${NETMGR_SHELL_LOG:-/dev/null}"
exit 0
