// The core's one log macro: "[NETMGR][level][function:line]" and the text.
// The line is the message's fixed number, not __LINE__, so that log readers
// can rely on it across rebuilds.
#pragma once

#include <stdio.h>

#define NETMGR_INFO "Info"
#define NETMGR_WARNING "Warning"
#define NETMGR_ERROR "Error"

#define NETMGR_LOG(level, line, fmt, ...)                                                          \
    fprintf(stderr, "[NETMGR][%s][%s:%d]" fmt "\n", level, __func__, line, ##__VA_ARGS__)
