// How many TPM commands the agent's operations send.
#pragma once

// Prints a line an operation, login included: what a request costs once the keys are resolved. The TPM at
// ATTEST_TPM has to be free. False when an operation fails.
bool print_command_counts();
