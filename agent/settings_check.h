// Settings that are read where they are used, each time: what is wrong with one is told once, at the start.
#pragma once

// A line to the operator for each of ATTEST_BMC_ADDRESS, ATTEST_TPM and ATTEST_TRACE that says nothing. The
// agent goes on with what it has.
void tell_wrong_settings();
