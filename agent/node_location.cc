#include "agent/node_location.h"

#include "agent/debug_trace.h"
#include "platform/node_identity.h"

malloc_ptr<char> allocate_node_location(const char *operation)
{
    malloc_ptr<char> name(static_cast<char *>(std::calloc(1, NODE_NAME_SIZE)));
    if (name != nullptr && platform_get_node_name(name.get(), NODE_NAME_SIZE) != 0)
        name.reset();
    if (name == nullptr)
        attest_trace_as(operation, "Failed to allocate node location");
    return name;
}
