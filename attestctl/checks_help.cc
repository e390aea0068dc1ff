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
    {CERTIFICATES,
     "of the certificates of \"identity\" and \"attestation key\":\n"
     "  certificates     root, CA and the certificate that was asked for, each in DER and nothing after it\n"
     "  chain            the path from the certificate over the CA to the root: signatures, dates, CA "
     "flags,\n"
     "                   key usage, keys and digests of at least 112 bits of strength\n"
     "  root             with --root: is one of the file's. Without it nothing but the answer vouches for "
     "the\n"
     "                   root, and chain and verdict say so\n"
     "  nonce            is the one that was sent\n"
     "  signature        over nonce, algorithm and certificates, by the device identity's key\n"},
    {of(command_id::pcrs) | of(command_id::hw_integrity) | of(command_id::attest),
     "of the quote:\n"
     "  quote values     a value for each PCR that was asked for, in that order\n"
     "  quote form       a whole TPMS_ATTEST, made by a TPM, of type quote\n"
     "  quote nonce      is the one that was sent\n"
     "  quote selection  the bank and exactly the PCRs that were asked for\n"
     "  quote digest     that of the values in the answer\n"
     "  quote signature  by the attestation key, whose certificates are checked as above\n"},
    {of(command_id::attest), "  boot log events  whole, and numbered without a gap\n"
                             "  boot log replay  gives the quoted SHA-256 values of the PCRs that it "
                             "extends, and of PCRs 0 to 9 and 14 in\n"
                             "                   any case; says what it leaves unjudged. That digests belong "
                             "to the data beside them is\n"
                             "                   not checked\n"},
    {of(command_id::hw_integrity) | of(command_id::attest),
     "  hardware identifiers  what the board shows now is what was recorded, entry by entry\n"
     "  hardware binding      PCR 15 is the extension by the recorded list\n"
     "  hardware quote ...    as for the quote, over PCR 15 in the bank of --hash-algo\n"},
    {of(command_id::attest),
     "  IMA list         numbers without gaps; template hashes recomputed; the "
     "replay gives the quoted PCR 10;\n"
     "                   with --state from the last event that was verified, unless the "
     "node was booted since\n"
     "                   or the list does not go on from there: then from the begin\n"
     "  pinned ...       with --pin: roots, PCRs 0 to 9, 14 and 15 and recorded digests are "
     "those of the first\n"
     "                   attestation that was VERIFIED; what differs is a row each, old "
     "against new\n"},
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
