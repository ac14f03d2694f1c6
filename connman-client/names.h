// Bus names, object paths and interfaces that the library and its tools
// share with ConnMan and with each other. Macros, so that match rules can be
// put together from literals.
#pragma once

// ConnMan's well-known name and its objects.
#define CONNMAN_SERVICE "net.connman"
#define CONNMAN_MANAGER_PATH "/"
#define CONNMAN_MANAGER_INTERFACE "net.connman.Manager"
#define CONNMAN_TECHNOLOGY_INTERFACE "net.connman.Technology"
#define CONNMAN_SERVICE_INTERFACE "net.connman.Service"

// The agent object the library exports for ConnMan's passphrase requests.
#define CONNMAN_AGENT_PATH "/net/connman/agent/gaskaidra"
#define CONNMAN_AGENT_INTERFACE "net.connman.Agent"

// The name the library claims on the session bus (one instance per bus), and
// the read-only state object it publishes there for netmgrctl.
#define NETMGR_BUS_NAME "net.connman.Gaskaidra"
#define NETMGR_STATE_PATH "/net/connman/gaskaidra"
#define NETMGR_STATE_INTERFACE "net.connman.Gaskaidra.State"
