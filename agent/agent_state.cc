#include "agent/agent_state.h"

at_agent_state_block at_agent_state;
std::uint64_t at_soft_data_limit;
