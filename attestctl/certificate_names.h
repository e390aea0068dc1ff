// Names of certificates, as the contract has them.
#pragma once

inline constexpr const char *IDENTITY_NAME = "Kestrin VOXA";
inline constexpr const char *ATTESTATION_KEY_NAME = "Kestrin AIK";
