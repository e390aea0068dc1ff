#include "attestctl/checks_help.h"

#include <array>
#include <string_view>

namespace {

// What a command checks, by the rows of its output.
struct checks_row {
    unsigned commands;
    std::string_view text;
};
constexpr auto CHECKS = std::to_array<checks_row>({
    {CERTIFICATES, R"(of the certificates of "identity" and "attestation key":
  certificates     root, CA and the certificate that was asked for, each in DER and nothing after it;
                   the two are of different keys, which no other source has; the attestation key's
                   alone is for attestation (extended key usage 2.23.133.8.3)
  chain            the path from the certificate over the CA to the root: signatures, dates, CA
                   flags, key usage, keys and digests of at least 112 bits of strength
  root             with --root: is one of the file's. Without it nothing but the answer vouches for
                   the root, and chain and verdict say so
  nonce            is the one that was sent
  signature        over nonce, algorithm and certificates, by the device identity's key
)"},
    {of(command_id::pcrs) | of(command_id::hw_integrity) | of(command_id::attest), R"(of the quote:
  quote values     a value for each PCR that was asked for, in that order
  quote form       a whole TPMS_ATTEST, made by a TPM, of type quote
  quote nonce      is the one that was sent
  quote selection  the bank and exactly the PCRs that were asked for
  quote digest     that of the values in the answer
  quote signature  by the attestation key, whose certificates are checked as above
)"},
    {of(command_id::attest), R"(  boot log events  whole, and numbered without a gap
  boot log replay  gives the quoted SHA-256 values of the PCRs that it extends, and of PCRs 0 to 9
                   and 14 in any case; says what it leaves unjudged. That digests belong to the
                   data beside them is not checked
)"},
    {of(command_id::hw_integrity) | of(command_id::attest),
     R"(  hardware identifiers  what the board shows now is what was recorded, entry by entry
  hardware binding      PCR 15 is the extension by the recorded list
  hardware quote ...    as for the quote, over PCR 15 in the bank of --hash-algo
)"},
    {of(command_id::attest),
     R"(  IMA list         numbers without gaps; template hashes recomputed; the replay gives the quoted
                   PCR 10; with --state from the last event that was verified, unless the node was
                   booted since or the list does not go on from there: then from the begin
  pinned ...       with --pin: roots, keys, PCRs 0 to 9, 14, 15 and recorded digests are those of the
                   first attestation that was VERIFIED; what differs is a row each, old against new
)"},
});

} // namespace

void append_checks_help(std::string &out, command_id command)
{
    if ((CERTIFICATES & of(command)) == 0)
        return;
    out += "\nChecks, a row each and for each source of the node; VERIFIED when all of them pass:\n";
    for (const checks_row &row : CHECKS)
        if ((row.commands & of(command)) != 0)
            out += row.text;
}
