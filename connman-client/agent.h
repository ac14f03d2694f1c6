// The agent object "/net/connman/agent/gaskaidra" that ConnMan calls for
// passphrases, hidden-network names, errors, browser requests and cancels.
#pragma once

#include <stdbool.h>

#include "connman-client/names.h"

typedef void (*connman_agent_error_cb_t)(const char *path, const char *error);
typedef void (*connman_agent_browser_cb_t)(const char *path, const char *url);
// (service path, name, identity, passphrase, previous passphrase, wps,
//  previous wps pin, username); the flags are 1 when ConnMan asks for them.
typedef void (*connman_agent_input_cb_t)(const char *path, int name, int identity, int passphrase,
                                         const char *previous_passphrase, int wps,
                                         const char *previous_wps_pin, int username);
typedef void (*connman_agent_cancel_cb_t)(void);

// Exports the agent object on the system bus and asks ConnMan to register
// it. 0 (also when already initialised), -EINVAL before the interface is
// up, -ENOMEM.
int connman_agent_init(void);
void connman_agent_finalize(void);

// The core's handlers; -EINVAL while the agent is not initialised (also
// after ConnMan released it). A request without a handler is refused or
// acknowledged at once, never left pending.
int connman_agent_set_error_cb(connman_agent_error_cb_t cb);
int connman_agent_set_browser_cb(connman_agent_browser_cb_t cb);
int connman_agent_set_input_cb(connman_agent_input_cb_t cb);
int connman_agent_set_cancel_cb(connman_agent_cancel_cb_t cb);

// Each reply answers the one pending request and ends it; with nothing
// pending it sends nothing and still returns 0. A request ConnMan
// cancelled is no longer pending.
int connman_agent_reply_retry(void);
int connman_agent_reply_canceled(void);
int connman_agent_reply_launch_browser(void);
// Texts must be valid UTF-8 (-EINVAL otherwise, and the request stays
// pending); a null name or passphrase is left out of the answer. With wps
// and no passphrase, the answer is the PIN, or "" for push-button.
int connman_agent_reply_passphrase(const char *name, const char *passphrase, bool wps,
                                   const char *wps_pin);
// Both halves are required (-EINVAL); a login may lack either one.
int connman_agent_reply_identity(const char *identity, const char *passphrase);
int connman_agent_reply_login(const char *username, const char *password);
