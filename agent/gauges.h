// The state that who watches the agent sees, set whenever they ask (platform/metrics.h).
#pragma once

// For metrics_collect_with; `context` is not used. On the event-loop thread.
void collect_agent_gauges(void *context);
