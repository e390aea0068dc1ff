#include "attestctl/html/page.h"

#include <algorithm>
#include <array>

#include <openssl/evp.h>

#include "attestctl/html/assets.h"
#include "attestctl/html/sections.h"
#include "attestctl/text.h"
#include "attestctl/verify/hashes.h"

namespace {

// 'sha256-...': the one style and the one script that the page allows itself.
std::string content_source(std::string_view content)
{
    const std::string digest = digest_of(quoted_bank(), {content});
    std::array<unsigned char, 64> base64{};
    const int length = EVP_EncodeBlock(base64.data(), reinterpret_cast<const unsigned char *>(digest.data()),
                                       static_cast<int>(digest.size()));
    return "'sha256-" +
           std::string(reinterpret_cast<const char *>(base64.data()), static_cast<std::size_t>(length)) + "'";
}

void append_head(html &out, const page_input &input)
{
    out << "<!doctype html>\n<html lang=en><head><meta charset=utf-8>\n<meta "
           "http-equiv=Content-Security-Policy content=\""
        << "default-src 'none'; style-src ";
    out.bytes += content_source(PAGE_STYLE);
    out << "; script-src ";
    out.bytes += content_source(PAGE_SCRIPT);
    out << "; base-uri 'none'; form-action 'none'\">\n<meta name=referrer content=no-referrer>\n"
        << "<meta name=viewport content=\"width=device-width, initial-scale=1\">\n"
        << "<meta name=color-scheme content=\"light dark\">\n<title>"
        << (all_passed(input.checks) ? markup("VERIFIED") : markup("NOT VERIFIED")) << ": " << input.target
        << "</title>\n<style>";
    out.bytes += PAGE_STYLE;
    out << "</style></head>\n";
}

void append_navigation(html &out, const page_input &input)
{
    out << "<nav><div class=wrap><a href=\"#top\" class=word>"
        << (all_passed(input.checks) ? markup("VERIFIED") : markup("NOT VERIFIED"))
        << "</a><a href=\"#checks\">Checks</a><a href=\"#evidence\">Evidence</a><a "
           "href=\"#certificates\">Certificates</a>"
        << "<a href=\"#pcrs\">PCRs</a><a href=\"#hardware\">Hardware</a><a href=\"#boot\">Boot log</a>"
        << "<a href=\"#ima\">IMA list</a></div></nav>\n<main class=wrap>\n";
}

} // namespace

std::string attestation_page(const page_input &input)
{
    const std::vector<page_source> sources = page_sources(input);
    html out;
    append_head(out, input);
    out << (!all_passed(input.checks)   ? markup("<body id=top class=refused>\n")
            : input.roots.vouched_for() ? markup("<body id=top class=verified>\n")
                                        : markup("<body id=top class=unpinned>\n"));
    append_verdict(out, input);
    append_navigation(out, input);
    append_check_tables(out, input);
    append_evidence(out, input);
    append_certificates(out, input, sources);
    append_pcrs(out, input, sources);
    append_hardware(out, input, sources);
    append_boot_logs(out, sources);
    append_ima_lists(out, sources);
    out << "</main><footer class=wrap><p>What a node sent is text here and nothing else. In it, "
           "<code>\\xNN</code> stands "
        << "for a byte that is no UTF-8 or a control, <code>\\u{N}</code> for a character that would hide or "
           "reorder "
        << "others, <code>\\\\</code> for a backslash. Times are the clock's of the machine that asked.</p>"
        << "<p>Written by attestctl.</p></footer>\n<script>";
    out.bytes += PAGE_SCRIPT;
    out << "</script></body></html>\n";
    return std::move(out.bytes);
}
