// Many nodes attested at the same time.
#pragma once

#include "attestctl/attest_memory.h"
#include "attestctl/options.h"
#include "attestctl/verdict.h"

// Attests the nodes of the file of --targets, up to --jobs of them at the same time, and writes a line each
// as they come to an end, and a summary. What the memory keeps is replaced at the end. The exit status: that
// of the worst node, one that does not verify being worse than one that could not be asked to the end.
int attest_many(const settings &chosen, const chosen_roots &roots, attest_memory &memory);
