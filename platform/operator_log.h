// What is told the operator of settings and peers: which are refused, what is served where. The agent's
// failures are system messages (message_log.h).
#pragma once

// One line to the journal, or to stderr where there is none. `priority` is a syslog priority (LOG_ERR, ...).
void operator_log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
