// What the platform layer itself tells the operator: refused settings, refused peers, what is served where.
// The agent's own failures are system messages (message_log.h).
#pragma once

// One line to the journal, or to stderr where there is none. `priority` is a syslog priority (LOG_ERR, ...).
void operator_log(int priority, const char *format, ...) __attribute__((format(printf, 2, 3)));
