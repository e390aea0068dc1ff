#include "trust_anchor/record_parts.h"

bool pcr_quote_in_sync()
{
    return true;
}
