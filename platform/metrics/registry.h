// The values, behind platform/metrics.h.
#pragma once

#include <string>

// From now on values are kept.
void metrics_registry_enable();

// Every value there is, in Prometheus' text format 0.0.4; "" when there is no memory for it.
std::string metrics_registry_text();
